// SPDX-License-Identifier: Apache-2.0
#include "canny/subpixel_refinement.h"

#include <algorithm>
#include <cmath>
#include <numbers>

#include "parallel/parallel_loop.h"

namespace kestrune {

namespace {

constexpr double kPerGain = 0.0078125;  ///< 1 / 128: the response in grey levels
/// Points of one contour that make one item of the loop over all contours, and a bound of the time for one, ns.
constexpr std::size_t kChunk = 512;
constexpr std::int64_t kRefinementTime = 500;
constexpr double kLargestOffset = 0.5;  ///< px; beyond it another pixel is the nearest one to the line

/// Second-order surface a0 + a1 x + a2 y + a3 x^2 + a4 x y + a5 y^2 through nine magnitudes.
struct Facet {
    double a0, a1, a2, a3, a4, a5;
};

/// Gradient magnitudes of the 3 by 3 neighbourhood in row order. Beyond the border the centre row or column stands in.
void readMagnitudes(const cv::Mat& dx, const cv::Mat& dy, const cv::Point& pixel, double m[9]) {
    const int rows[3] = {pixel.y >= 1 ? pixel.y - 1 : pixel.y, pixel.y, pixel.y + 1 < dx.rows ? pixel.y + 1 : pixel.y};
    const int columns[3] = {pixel.x >= 1 ? pixel.x - 1 : pixel.x, pixel.x,
                            pixel.x + 1 < dx.cols ? pixel.x + 1 : pixel.x};
    for (int i = 0; i < 3; ++i) {
        const short* const xRow = dx.ptr<short>(rows[i]);
        const short* const yRow = dy.ptr<short>(rows[i]);
        for (int j = 0; j < 3; ++j) {
            const double x = xRow[columns[j]];
            const double y = yRow[columns[j]];
            m[3 * i + j] = std::sqrt(x * x + y * y);
        }
    }
}

Facet fitFacet(const double m[9]) {
    Facet f{};
    f.a0 = (-m[0] + 2 * m[1] - m[2] + 2 * m[3] + 5 * m[4] + 2 * m[5] - m[6] + 2 * m[7] - m[8]) / 9;
    f.a1 = (-m[0] + m[2] - m[3] + m[5] - m[6] + m[8]) / 6;
    f.a2 = (m[6] + m[7] + m[8] - m[0] - m[1] - m[2]) / 6;
    f.a3 = (m[0] - 2 * m[1] + m[2] + m[3] - 2 * m[4] + m[5] + m[6] - 2 * m[7] + m[8]) / 6;
    // With the opposite sign this would be the mixed derivative: the facet is mirrored about the y axis in this term,
    // and directions and offsets of edges that are not along an axis follow from it.
    f.a4 = (-m[0] + m[2] + m[6] - m[8]) / 4;
    f.a5 = (m[0] + m[1] + m[2] - 2 * (m[3] + m[4] + m[5]) + m[6] + m[7] + m[8]) / 6;
    return f;
}

/// Eigenvector of the facet's Hessian with the eigenvalue of larger magnitude: the direction across the edge.
struct PrincipalDirection {
    double eigenvalue, nx, ny;
};

PrincipalDirection principalDirection(double dxx, double dxy, double dyy) {
    double c = 1, s = 0, e1 = dyy, e2 = dxx;
    if (dxy != 0) {
        const double theta = (dxx - dyy) / 2 / dxy;
        double t = 1 / (std::abs(theta) + std::sqrt(theta * theta + 1));
        if (theta < 0) t = -t;
        c = 1 / std::sqrt(t * t + 1);
        s = t * c;
        e1 = dyy - t * dxy;
        e2 = dxx + t * dxy;
    }
    const bool first = std::abs(e1) > std::abs(e2) || (std::abs(e1) == std::abs(e2) && e1 < e2);
    return first ? PrincipalDirection{e1, -s, c} : PrincipalDirection{e2, c, s};
}

/// The line of the edge near a pixel.
struct EdgeLine {
    double height;          ///< of the facet at the pixel
    double nx, ny;          ///< across the line
    double ox = 0, oy = 0;  ///< from the pixel to the line
    explicit EdgeLine(const double m[9]) {
        const Facet f = fitFacet(m);
        const double dxx = 2 * f.a3;
        const double dxy = f.a4;
        const double dyy = 2 * f.a5;
        const PrincipalDirection p = principalDirection(dxx, dxy, dyy);
        double offset = 0;
        if (p.eigenvalue < 0) {  // a ridge of the magnitude; in a valley the pixel stays
            offset = -(p.nx * f.a1 + p.ny * f.a2) / (dxx * p.nx * p.nx + 2 * dxy * p.nx * p.ny + dyy * p.ny * p.ny);
        }
        height = f.a0;
        nx = p.nx;
        ny = p.ny;
        ox = nx * offset;
        oy = ny * offset;
    }
    cv::Point2f near(const cv::Point& pixel) const {
        cv::Point2f point(static_cast<float>(pixel.x), static_cast<float>(pixel.y));
        if (std::abs(ox) <= kLargestOffset && std::abs(oy) <= kLargestOffset) {
            point.x += static_cast<float>(ox);
            point.y += static_cast<float>(oy);
        }
        return point;
    }
};

void refinePoint(const cv::Mat& dx, const cv::Mat& dy, const cv::Point& pixel, cv::Point2f& point, float& response,
                 float& direction) {
    double m[9];
    readMagnitudes(dx, dy, pixel, m);
    const EdgeLine line(m);
    point = line.near(pixel);
    response = static_cast<float>(line.height * kPerGain);
    double angle = std::atan2(line.nx, line.ny);  // in this order: the angle is counted from the y axis
    if (angle < 0) angle += 2 * std::numbers::pi;
    direction = static_cast<float>(angle);
}

}  // namespace

cv::Point2f refinedPoint(const cv::Point& pixel, const double magnitudes[9]) {
    return EdgeLine(magnitudes).near(pixel);
}

void refineContours(const cv::Mat& dx, const cv::Mat& dy, const std::vector<std::vector<cv::Point>>& pixelContours,
                    std::vector<SubpixelContour>& contours) {
    struct Block {
        std::size_t contour, first;
    };
    std::vector<Block> blocks;
    contours.resize(pixelContours.size());
    for (std::size_t c = 0; c < pixelContours.size(); ++c) {
        const std::size_t count = pixelContours[c].size();
        contours[c].points.resize(count);
        contours[c].response.resize(count);
        contours[c].direction.resize(count);
        for (std::size_t first = 0; first < count; first += kChunk) blocks.push_back({c, first});
    }
    // One loop over all contours: most of them are too short to be worth one each.
    forEachInParallel(static_cast<int>(blocks.size()), kRefinementTime * static_cast<std::int64_t>(kChunk), [&](int b) {
        const auto [c, first] = blocks[static_cast<std::size_t>(b)];
        const std::vector<cv::Point>& pixels = pixelContours[c];
        SubpixelContour& contour = contours[c];
        for (std::size_t k = first; k < std::min(pixels.size(), first + kChunk); ++k) {
            refinePoint(dx, dy, pixels[k], contour.points[k], contour.response[k], contour.direction[k]);
        }
    });
}

}  // namespace kestrune
