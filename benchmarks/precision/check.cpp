// SPDX-License-Identifier: Apache-2.0
#include "check.h"

#include <fmt/format.h>

#include <cmath>
#include <functional>
#include <numbers>
#include <string>
#include <utility>
#include <vector>

#include "bound.h"

namespace kestrune::bench {
namespace {

constexpr double kPointsPerPixel = 200;    ///< of the plain sums, along a row
constexpr double kSumTolerance = 1e-4;     ///< of the contrast: what the plain sums are good for
constexpr double kExactTolerance = 1e-7;   ///< Gaussians are cut off here
constexpr double kBoundTolerance = 0.015;  ///< of the closed form for large discs,
constexpr double kLargeDisc = 8;           ///< of this radius in units of the blur

class Report {
  public:
    void add(const std::string& what, double value, double expected, double tolerance) {
        const bool agrees = std::abs(value - expected) <= tolerance;
        fmt::print("{} {}: {:.8f}, {:.8f} expected\n", agrees ? "ok  " : "FAIL", what, value, expected);
        allAgree_ = allAgree_ && agrees;
    }
    bool allAgree() const { return allAgree_; }

  private:
    bool allAgree_ = true;
};

double normalIntegral(double z) {
    return 0.5 * std::erfc(-z * std::numbers::sqrt2 / 2);
}

/// Share of a pixel at the origin that light from `t` px away has.
double pixelShare(double t, double blur) {
    return normalIntegral((t + 0.5) / blur) - normalIntegral((t - 0.5) / blur);
}

/// The sum over points of the plane that are inside.
double plainSum(const cv::Point& pixel, double blur, const std::function<bool(const cv::Point2d&)>& isInside) {
    const double h = 1 / kPointsPerPixel, reach = reachOf(blur);
    std::vector<std::pair<double, double>> points;  // place and share
    for (int k = 0; k < 2 * reach / h; ++k) {
        const double t = (k + 0.5) * h - reach;
        points.emplace_back(t, pixelShare(t, blur) * h);
    }
    double sum = 0;
    for (const auto& [dy, shareY] : points)
        for (const auto& [dx, shareX] : points)
            if (isInside({pixel.x + dx, pixel.y + dy})) sum += shareX * shareY;
    return sum;
}

bool isIn(const Ellipse& ellipse, const cv::Point2d& p) {
    const cv::Point2d d = p - ellipse.centre();
    const double c = std::cos(ellipse.angle()), s = std::sin(ellipse.angle());
    return std::hypot((c * d.x + s * d.y) / ellipse.major(), (c * d.y - s * d.x) / ellipse.minor()) < 1;
}

struct Shape {
    const char* name;
    Ellipse ellipse;
    double blur;
    std::optional<HalfPlane> covered = {};
    std::optional<Lens> lens = {};
};

void checkShapes(Report& report) {
    const Shape shapes[] = {
        {"disc", Ellipse::of({20.3, 19.6}, 6, 6, 0), 0.5},
        {"small disc", Ellipse::of({20.3, 19.6}, 4, 4, 0), 1.5},
        {"ellipse", Ellipse::of({20.3, 19.6}, 10, 3.5, 0.7), 1},
        {"covered ellipse", Ellipse::of({20.3, 19.6}, 10, 6, 2), 0.8, HalfPlane{{0.6, 0.8}, 29}},
        {"ellipse through a lens", Ellipse::of({21, 18}, 9, 5, 0.3), 0.8, {}, Lens{-0.3, 40, {10, 12}}},
    };
    for (const Shape& shape : shapes) {
        cv::Mat1d image(40, 40, 0.0);
        addArea(image, {}, outlineOf(shape.ellipse, shape.covered, shape.lens, shape.blur), shape.blur, 1);
        for (const cv::Point pixel : {cv::Point(20, 20), cv::Point(14, 17), cv::Point(26, 20), cv::Point(22, 25)})
            report.add(fmt::format("{} at ({}, {})", shape.name, pixel.x, pixel.y), image(pixel),
                       plainSum(pixel, shape.blur,
                                [&](const cv::Point2d& q) {
                                    const cv::Point2d p = shape.lens ? shape.lens->inverse(q) : q;
                                    if (shape.covered && shape.covered->normal.dot(p) > shape.covered->distance)
                                        return false;
                                    return isIn(shape.ellipse, p);
                                }),
                       kSumTolerance);
    }
}

void checkClosedForms(Report& report) {
    // A straight edge through column 20.3, seen far from the ends of what it bounds.
    const double blur = 0.9;
    const auto integral = [&](double t) {
        const double z = t / blur;
        return blur * (z * normalIntegral(z) + std::exp(-0.5 * z * z) / std::sqrt(2 * std::numbers::pi));
    };
    cv::Mat1d image(41, 41, 0.0);
    addArea(image, {}, outlineOf({{-60, -60}, {20.3, -60}, {20.3, 100}, {-60, 100}}, blur), blur, 1);
    for (const int column : {17, 19, 20, 21, 23})
        report.add(fmt::format("straight edge, column {}", column), image(20, column),
                   integral(20.3 - column + 0.5) - integral(20.3 - column - 0.5), kExactTolerance);
    cv::Mat1d whole(101, 101, 0.0);
    addArea(whole, {}, outlineOf(Ellipse::of({50.2, 49.7}, 30, 11, 1), {}, {}, 0.5), Blur{0.5, 0.15}, 1);
    report.add("area of an ellipse", cv::sum(whole)[0] / (std::numbers::pi * 30 * 11), 1, kExactTolerance);
}

void checkBounds(Report& report) {
    std::mt19937_64 random(1);
    for (const double radius : {10., 20., 40.})
        for (const double blur : {0.5, 1., 2.}) {
            if (radius < kLargeDisc * blur) continue;
            const Kind kind{.family = "", .name = "", .radius = radius, .contrast = 100, .noise = 2, .blur = blur};
            const Scene scene = makeScene(kind, 1, random);
            const double s = std::sqrt(blur * blur + 1.0 / 12);
            const double sigma = kind.noise / kind.contrast * std::sqrt(2 * s / (std::sqrt(std::numbers::pi) * radius));
            report.add(
                fmt::format("bound of a disc's centre over the closed form, radius {:g}, blur {:g}", radius, blur),
                std::sqrt(bound(scene, scene.markers[0], 0)(0, 0)) / sigma, 1, kBoundTolerance);
        }
}

void checkNoise(Report& report) {
    std::mt19937_64 random(1);
    cv::Mat1d flat(500, 500, 120.3);
    const cv::Mat image = exposed(flat, {2, 0.1}, 8, random);
    cv::Scalar mean, deviation;
    cv::meanStdDev(image, mean, deviation);
    report.add("mean of a noisy area", mean[0], 120.3, 0.04);
    report.add("variance of a noisy area", deviation[0] * deviation[0], 4 + 12.03 + 1.0 / 12, 0.2);
}

}  // namespace

bool checkPictures() {
    Report report;
    checkClosedForms(report);
    checkShapes(report);
    checkBounds(report);
    checkNoise(report);
    return report.allAgree();
}

}  // namespace kestrune::bench
