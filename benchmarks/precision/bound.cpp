// SPDX-License-Identifier: Apache-2.0
#include "bound.h"

#include <array>

namespace kestrune::bench {
namespace {

constexpr double kDifference = 0.01;  ///< px, of the derivatives
constexpr int kFitSteps = 6;

using Vector8 = cv::Vec<double, 8>;
constexpr int kInside = 5, kOutside = 6, kBlur = 7;

/// Share of each pixel of the window that a marker with these parameters covers.
cv::Mat1d areaIn(const cv::Rect& window, const Scene& scene, const TrueMarker& marker, const Vector8& at) {
    cv::Mat1d area(window.size(), 0.0);
    const Outline outline = outlineOf({at[0], at[1], at[2], at[3], at[4]}, marker.covered, scene.lens, at[kBlur]);
    addArea(area, window.tl(), outline, Blur{at[kBlur], scene.blur.halo}, 1);
    return area;
}

Vector8 truthOf(const Scene& scene, const TrueMarker& marker) {
    const Ellipse& e = marker.ellipse;
    return {e.x, e.y, e.s, e.e1, e.e2, scene.kind.inside(), scene.kind.ground(), scene.blur.sigma};
}

/// The even light of a marker and its ground, and its derivatives.
struct Linear {
    cv::Mat1d level;
    std::array<cv::Mat1d, 8> derivatives;

    Linear(const cv::Rect& window, const Scene& scene, const TrueMarker& marker, const Vector8& at) {
        const double step = at[kInside] - at[kOutside];
        const cv::Mat1d area = areaIn(window, scene, marker, at);
        level = area * step + at[kOutside];
        for (const int k : {0, 1, 2, 3, 4, kBlur}) {
            Vector8 up = at, down = at;
            up[k] += kDifference, down[k] -= kDifference;
            const cv::Mat difference = areaIn(window, scene, marker, up) - areaIn(window, scene, marker, down);
            derivatives[static_cast<std::size_t>(k)] = difference * (step / (2 * kDifference));
        }
        derivatives[kInside] = area;
        derivatives[kOutside] = cv::Mat(1 - area);
    }
    Vector8 rowAt(int y, int x, double light) const {
        Vector8 row;
        for (int k = 0; k < 8; ++k) row[k] = derivatives[static_cast<std::size_t>(k)](y, x) * light;
        return row;
    }
};

template <typename Visit>
void forEachPixel(const Scene& scene, const cv::Rect& window, double roundingVariance, const Visit& visit) {
    const Noise noise{scene.kind.noise, scene.kind.shot};
    for (int y = 0; y < window.height; ++y)
        for (int x = 0; x < window.width; ++x) {
            const cv::Point pixel(x + window.x, y + window.y);
            visit(pixel, y, x, scene.light(pixel.x, pixel.y),
                  1 / (noise.variance(scene.mean(pixel)) + roundingVariance));
        }
}

double greyAt(const cv::Mat& image, const cv::Point& pixel) {
    return image.depth() == CV_8U ? image.at<uchar>(pixel) : image.at<ushort>(pixel) / 256.0;
}

MarkerEstimate fit(const Scene& scene, const TrueMarker& marker) {
    const cv::Rect window = scene.windowOf(marker.ellipse);
    const Vector8 truth = truthOf(scene, marker);
    const cv::Mat1d known = Linear(window, scene, marker, truth).level;
    Vector8 at = truth;
    Matrix8 covariance;
    for (int step = 0; step < kFitSteps; ++step) {
        const Linear model(window, scene, marker, at);
        Matrix8 information = Matrix8::zeros();
        Vector8 slope = Vector8::zeros();
        forEachPixel(scene, window, roundingVariance(scene.kind),
                     [&](const cv::Point& pixel, int y, int x, double light, double weight) {
                         const Vector8 row = model.rowAt(y, x, light);
                         const double expected = scene.mean(pixel) + light * (model.level(y, x) - known(y, x));
                         information += row * row.t() * weight;
                         slope += row * (weight * (greyAt(scene.image, pixel) - expected));
                     });
        covariance = information.inv(cv::DECOMP_CHOLESKY);
        at += covariance * slope;
    }
    const Ellipse ellipse{at[0], at[1], at[2], at[3], at[4]};
    MarkerEstimate estimate;
    estimate.status = RefinementStatus::refined;
    estimate.centre = ellipse.centre();
    estimate.majorHalfAxis = ellipse.major(), estimate.minorHalfAxis = ellipse.minor();
    estimate.angle = ellipse.angle();
    estimate.covariance = covariance;
    return estimate;
}

}  // namespace

double roundingVariance(const Kind& kind) {
    const double step = kind.bits == 8 ? 1 : 1.0 / 256;
    return step * step / 12;
}

Matrix8 bound(const Scene& scene, const TrueMarker& marker, double roundingVariance) {
    const cv::Rect window = scene.windowOf(marker.ellipse);
    const Linear model(window, scene, marker, truthOf(scene, marker));
    Matrix8 information = Matrix8::zeros();
    forEachPixel(scene, window, roundingVariance, [&](const cv::Point&, int y, int x, double light, double weight) {
        const Vector8 row = model.rowAt(y, x, light);
        information += row * row.t() * weight;
    });
    return information.inv(cv::DECOMP_CHOLESKY);
}

Detector idealFit() {
    return {"ideal fit", [](const Scene& scene, std::mt19937_64&) {
                Findings findings;
                for (const TrueMarker& marker : scene.markers) {
                    const MarkerEstimate estimate = fit(scene, marker);
                    findings.found.push_back({.centre = estimate.centre});
                    findings.refined.push_back({.centre = estimate.centre,
                                                .meanHalfAxis = 0.5 * (estimate.majorHalfAxis + estimate.minorHalfAxis),
                                                .estimate = estimate});
                }
                return findings;
            }};
}

}  // namespace kestrune::bench
