// SPDX-License-Identifier: Apache-2.0
//
// How round and how filled a closed contour is, and what an ellipse measures. Points may be `cv::Point` or
// `cv::Point2f`; lengths in their unit.
#pragma once

#include <algorithm>
#include <cmath>
#include <numbers>
#include <opencv2/imgproc.hpp>
#include <vector>

namespace kestrune::geometry {

/// Half axes a >= b of an ellipse, formed in single precision like the ellipse and then widened.
struct HalfAxes {
    explicit HalfAxes(const cv::RotatedRect& rect)
        : a(0.5f * std::max(rect.size.width, rect.size.height)),
          b(0.5f * std::min(rect.size.width, rect.size.height)) {}

    double a, b;
};

/// sqrt(a^2 - b^2) / a of two axes, or of their halves, a >= b: 0 for a circle, towards 1 for a line.
inline double eccentricity(double a, double b) {
    return std::sqrt(a * a - b * b) / a;
}

/// 4 pi area / perimeter^2: 1 for a circle, less for anything else.
inline double circularity(double area, double perimeter) {
    return area * (4 * std::numbers::pi) / (perimeter * perimeter);
}

/// perimeter^2 / area: 4 pi for a circle, more for anything else.
inline double compactness(double area, double perimeter) {
    return perimeter * perimeter / area;
}

/// Length of the closed contour. OpenCV has none of an empty one; here it is 0.
template <typename Point>
double perimeterOf(const std::vector<Point>& contour) {
    return contour.empty() ? 0 : cv::arcLength(contour, true);
}

/// Area that the contour encloses, 0 or above. OpenCV has none of an empty one; here it is 0.
template <typename Point>
double areaOf(const std::vector<Point>& contour) {
    return contour.empty() ? 0 : cv::contourArea(contour, false);
}

/// Area of the convex hull, 0 or above.
///
/// @param hull  scratch storage: its points, in no order to rely on.
template <typename Point>
double hullArea(const std::vector<Point>& contour, std::vector<Point>& hull) {
    cv::convexHull(contour, hull, false, true);
    return cv::contourArea(hull, false);
}

/// Whether centre, axes and angle are finite. The fits make ellipses that are not of some outlines of a few pixels and
/// of coordinates that are not.
inline bool isFinite(const cv::RotatedRect& ellipse) {
    return std::isfinite(ellipse.center.x) && std::isfinite(ellipse.center.y) && std::isfinite(ellipse.size.width) &&
           std::isfinite(ellipse.size.height) && std::isfinite(ellipse.angle);
}

/// Area of an ellipse of which both axes are given, each halved in single precision.
inline double ellipseArea(const cv::Size2f& axes) {
    const auto a = static_cast<float>(axes.width * 0.5);
    const auto b = static_cast<float>(axes.height * 0.5);
    return a * std::numbers::pi * b;
}

/// Ramanujan's first approximation of an ellipse's perimeter, narrowed to single precision: it is compared with lengths
/// of contours in that.
inline float ellipsePerimeter(const HalfAxes& axes) {
    const double a = axes.a;
    const double b = axes.b;
    return static_cast<float>(std::numbers::pi * (3 * (a + b) - std::sqrt((3 * b + a) * (3 * a + b))));
}

}  // namespace kestrune::geometry
