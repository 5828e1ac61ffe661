// SPDX-License-Identifier: Apache-2.0
#include "refinement/spot.h"

#include <algorithm>
#include <cmath>
#include <numbers>
#include <opencv2/imgproc.hpp>
#include <vector>

namespace kestrune::refinement {

using geometry::SmoothEllipse;

namespace {

constexpr double kOutlineInset = 0.5;       // px
constexpr double kWindow = 2, kGround = 4;  // radii, and px beyond them: a disc tilted by 75 degrees is as long
constexpr double kCore = 0.25;              // radii: wholly inside a disc tilted by 75 degrees
constexpr double kMostGrowth = 1.6;         // of the area: beyond it the spot is something else
constexpr double kLargestRadius = 1e4;      // px

/// Median of the pixels along the window's edge: they are ground, but for what a neighbour has there.
double edgeLevel(const cv::Mat1f& window) {
    std::vector<float> levels;
    for (int x = 0; x < window.cols; ++x) levels.insert(levels.end(), {window(0, x), window(window.rows - 1, x)});
    for (int y = 0; y < window.rows; ++y) levels.insert(levels.end(), {window(y, 0), window(y, window.cols - 1)});
    const auto middle = levels.begin() + static_cast<std::ptrdiff_t>(levels.size() / 2);
    std::nth_element(levels.begin(), middle, levels.end());
    return static_cast<double>(*middle);
}

cv::Rect about(const cv::Point2d& centre, double reach, const cv::Size& size) {
    const cv::Point first(static_cast<int>(std::lround(centre.x - reach)),
                          static_cast<int>(std::lround(centre.y - reach)));
    const int side = static_cast<int>(std::lround(2 * reach)) + 1;
    return cv::Rect(first, cv::Size(side, side)) & cv::Rect({}, size);
}

}  // namespace

std::optional<SmoothEllipse> circleOfRecord(const Corner& corner) {
    if (!(corner.area > 0)) return std::nullopt;
    const SmoothEllipse circle{corner.x, corner.y, std::sqrt(corner.area / std::numbers::pi) + kOutlineInset, 0, 0};
    if (!circle.isFinite()) return std::nullopt;
    return circle;
}

SmoothEllipse ellipseOfSpot(const cv::Mat& grey, const SmoothEllipse& circle) {
    const cv::Point2d centre(circle.x, circle.y);
    const cv::Rect image({}, grey.size());
    if (!circle.isFinite() || circle.s > kLargestRadius || !cv::Rect2d(image).contains(centre)) return circle;
    const cv::Rect box = about(centre, kWindow * circle.s + kGround, grey.size());
    const cv::Rect core = about(centre, kCore * circle.s, grey.size());
    if (core.empty()) return circle;
    const cv::Point seed = cv::Point((core.tl() + core.br()) / 2) - box.tl();
    cv::Mat1f window;
    grey(box).convertTo(window, CV_32F);
    const double inside = cv::mean(grey(core))[0], outside = edgeLevel(window);

    cv::Mat1b spot;
    cv::compare(window, 0.5 * (inside + outside), spot, inside > outside ? cv::CMP_GT : cv::CMP_LT);
    if (spot(seed) == 0) return circle;
    constexpr int kSpot = 1;
    cv::floodFill(spot, seed, kSpot);
    const cv::Moments m = cv::moments(spot == kSpot, true);
    const double disc = std::numbers::pi * circle.s * circle.s;
    if (m.m00 > disc * kMostGrowth || m.m00 * kMostGrowth < disc) return circle;

    // A flat ellipse has a quarter of its half axes' squares as moments; each pixel adds that of its square.
    const double square = 1.0 / 12;
    const double p = 4 * (m.mu20 / m.m00 - square), q = 4 * m.mu11 / m.m00, r = 4 * (m.mu02 / m.m00 - square);
    const double product = p * r - q * q;
    if (!(p > 0 && product > 0)) return circle;
    const double s = 0.5 * std::sqrt(p + r + 2 * std::sqrt(product));
    return {box.x + m.m10 / m.m00, box.y + m.m01 / m.m00, s, 0.25 * (p - r) / s, 0.5 * q / s};
}

}  // namespace kestrune::refinement
