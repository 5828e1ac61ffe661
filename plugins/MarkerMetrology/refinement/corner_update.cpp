// SPDX-License-Identifier: Apache-2.0
#include <Eigen/Core>
#include <algorithm>
#include <cmath>
#include <numbers>

#include "kestrune/MarkerMetrology/refinement.h"
#include "kestrune_geometry/contour_shape.h"
#include "kestrune_geometry/smooth_ellipse.h"

namespace kestrune {
namespace {

// The matchers take the mean of three points for an end of a contour, and sort its halves by rows: with fewer points
// the ends would lie inside the rim by a tenth of a small marker.
constexpr std::size_t kFewestPoints = 48;

std::vector<cv::Point2f> rimOf(const geometry::SmoothEllipse& ellipse, std::size_t count) {
    std::vector<cv::Point2f> points(count);
    for (std::size_t k = 0; k < count; ++k)
        points[k] = ellipse.at(2 * std::numbers::pi * static_cast<double>(k) / static_cast<double>(count));
    return points;
}

/// As OpenCV's fits give it: the longer axis is the height, across the angle.
cv::RotatedRect rectOf(const geometry::SmoothEllipse& e) {
    const double across = (e.angle() >= 0.5 * std::numbers::pi ? -0.5 : 0.5) * std::numbers::pi;
    return {cv::Point2d(e.x, e.y), cv::Size2d(2 * e.minorHalfAxis(), 2 * e.majorHalfAxis()),
            static_cast<float>((e.angle() + across) * 180 / std::numbers::pi)};
}

Eigen::MatrixXd scatterOf(const std::vector<cv::Point2f>& points) {
    Eigen::Matrix<double, 6, 6> sum = Eigen::Matrix<double, 6, 6>::Zero();
    for (const cv::Point2d p : points) {
        const Eigen::Matrix<double, 6, 1> row(p.x * p.x, p.x * p.y, p.y * p.y, p.x, p.y, 1.0);
        sum += row * row.transpose();
    }
    return sum;
}

}  // namespace

void updateCorner(Corner& corner, const MarkerEstimate& estimate) {
    if (!estimate.isRefined()) return;
    const double a = estimate.majorHalfAxis, b = estimate.minorHalfAxis;
    const auto ellipse = geometry::SmoothEllipse::of(estimate.centre, a, b, estimate.angle);
    if (!ellipse.isFinite() || !(ellipse.minorHalfAxis() > 0)) return;
    corner.x = estimate.centre.x;
    corner.y = estimate.centre.y;
    corner.ellipse = rectOf(ellipse);
    corner.contour = rimOf(ellipse, std::max(corner.contour.size(), kFewestPoints));
    corner.conic = geometry::conicOf(geometry::matrixOf(ellipse));
    corner.scatter = scatterOf(corner.contour);
    corner.fitResidual = geometry::rmsValue(corner.conic, corner.contour);
    corner.conicValid = true;
    corner.area = 4 * a * b;
    corner.eccentricity = geometry::eccentricity(a, b);
}

}  // namespace kestrune
