// SPDX-License-Identifier: Apache-2.0
#include "MarkerExtractor/extraction/fit_error.h"

#include <cmath>
#include <numbers>

#include "kestrune_geometry/contour_shape.h"

namespace kestrune {

namespace {

template <typename Point>
bool fitErrorOf(const cv::RotatedRect& ellipse, const std::vector<Point>& points, double& error, double pointLimit) {
    const geometry::HalfAxes axes(ellipse);
    const double phi = (90.0 - ellipse.angle) / 180.0 * std::numbers::pi;
    const double sn = std::sin(phi);
    const double cs = std::cos(phi);
    double sum = 0;
    bool allNear = true;
    for (const Point& point : points) {
        const double dx = static_cast<double>(point.x) - ellipse.center.x;
        const double dy = static_cast<double>(point.y) - ellipse.center.y;
        const double u = dx * cs - dy * sn;
        const double v = dy * cs + dx * sn;
        // The factor a / b stands on the far side only: on the near side the angle is that of the point, on the far one
        // that of the ellipse's parameter. The measure is asymmetric for long ellipses, and `maxFitError` is a bound of
        // this measure.
        const double t = u < 0 ? std::numbers::pi + std::atan(axes.a / axes.b * v / u) : std::atan2(v, u);
        const double radius = std::sqrt(v * v + u * u);
        const double p = axes.a * std::cos(t);
        const double q = axes.b * std::sin(t);
        const double distance = std::abs(radius - std::sqrt(p * p + q * q));
        if (distance > pointLimit) allNear = false;
        sum += distance * distance;
    }
    error = std::sqrt(sum / static_cast<double>(points.size()));
    return allNear;
}

}  // namespace

bool ellipseFitError(const cv::RotatedRect& ellipse, const std::vector<cv::Point2f>& points, double& error,
                     const double& pointLimit) {
    return fitErrorOf(ellipse, points, error, pointLimit);
}

bool ellipseFitError(const cv::RotatedRect& ellipse, const std::vector<cv::Point>& points, double& error,
                     const double& pointLimit) {
    return fitErrorOf(ellipse, points, error, pointLimit);
}

}  // namespace kestrune
