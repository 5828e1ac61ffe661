// SPDX-License-Identifier: Apache-2.0
#include "ellipsedetection/contour_refinement.h"

#include <cmath>

namespace kestrune {

namespace {

constexpr int kRing = 2;               ///< px: ring of the image whose points are dropped
constexpr float kLargestShift = 1.5f;  ///< px: a ridge farther away belongs to another pixel
constexpr double kNearZero = 1e-8;     ///< what is below it is not divided by
constexpr float kLargestInverse = 1e8f;

/// Shift of one point to the ridge. Single precision but where it says otherwise.
cv::Point2f shiftToRidge(const float* g, std::ptrdiff_t cols) {
    const float gx = (g[1] - g[-1]) * 0.5f;
    const float gy = (g[cols] - g[-cols]) * 0.5f;
    const float gxx = g[-1] + g[1] - 2.0f * g[0];
    const float gyy = g[cols] + g[-cols] - 2.0f * g[0];
    const float gxy = (g[-cols - 1] + g[cols + 1] - g[-cols + 1] - g[cols - 1]) * 0.25f;

    const double spread = gxx - gyy;
    const double mixed = gxy;
    const auto root = static_cast<float>(std::sqrt(spread * spread + 4.0 * (mixed * mixed)));
    const float l1 = (gxx + gyy + root) * 0.5f;
    const float l2 = (gxx + gyy - root) * 0.5f;
    const float lambda = std::abs(l1) < std::abs(l2) ? l2 : l1;

    // Not |u|: a negative u, of a valley, takes the bound too, which turns n to y where gxy is not 0. Rims are ridges.
    const float u = gyy - lambda;
    const float v = kNearZero > u ? kLargestInverse : 1.0f / u;
    const float tilt = v * gxy;
    const float nx = 1.0f / std::sqrt(1.0f + tilt * tilt);
    const float ny = -gxy * nx * v;

    const float curvature = 2.0f * gxy * nx * ny + gxx * (nx * nx) + gyy * (ny * ny);
    const float slope = gx * nx + gy * ny;
    float t = kNearZero > std::abs(curvature) ? 0.0f : -slope / curvature;
    if (std::abs(t) > kLargestShift) t = 0.0f;
    return {t * nx, t * ny};
}

}  // namespace

std::vector<cv::Point2f> refineContourOnGradient(const std::vector<cv::Point>& contour, const float* img_grad, int rows,
                                                 int cols) {
    // A header over pixels that are only read.
    const cv::Mat whole(rows, cols, CV_32FC1, const_cast<float*>(img_grad));  // NOLINT(*-const-cast)
    return refineContourInWindow(contour, whole, {0, 0}, whole.size());
}

std::vector<cv::Point2f> refineContourInWindow(const std::vector<cv::Point>& contour, const cv::Mat& img_grad,
                                               const cv::Point& origin, const cv::Size& size) {
    const auto stride = static_cast<std::ptrdiff_t>(img_grad.step1());
    std::vector<cv::Point2f> refined;
    refined.reserve(contour.size());
    for (const cv::Point& point : contour) {
        if (point.x < kRing || point.x >= size.width - kRing || point.y < kRing || point.y >= size.height - kRing) {
            continue;
        }
        const cv::Point2f shift = shiftToRidge(img_grad.ptr<float>(point.y - origin.y, point.x - origin.x), stride);
        refined.emplace_back(static_cast<float>(point.x) + shift.x, static_cast<float>(point.y) + shift.y);
    }
    return refined;
}

}  // namespace kestrune
