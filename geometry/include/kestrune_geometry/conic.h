// SPDX-License-Identifier: Apache-2.0
//
// Conics A x^2 + B x y + C y^2 + D x + E y + F = 0 and the ellipses among them. Pixel (0, 0) is the centre of the top
// left pixel, x the column, y the row.
//
// The order of the operands is part of the results: rounding differs with it. Where single precision is named, it is
// that of the ellipse that a conic comes from or becomes.
#pragma once

#include <Eigen/Core>
#include <Eigen/LU>
#include <array>
#include <cmath>
#include <numbers>
#include <opencv2/core.hpp>

namespace kestrune::geometry {

/// A, B, C, D, E, F.
using Conic = std::array<double, 6>;

/// The left side at a point: 0 on the curve, and below 0 inside an ellipse whose value at its centre is.
inline double valueAt(const Conic& conic, double x, double y) {
    const auto& [A, B, C, D, E, F] = conic;
    return A * x * x + B * x * y + C * y * y + D * x + E * y + F;
}

/// Gradient of the left side: the normal of the curve at a point of it, outwards for an ellipse whose value at its
/// centre is below 0.
inline cv::Vec2d gradientAt(const Conic& conic, double x, double y) {
    const auto& [A, B, C, D, E, F] = conic;
    return {2.0 * A * x + B * y + D, 2.0 * C * y + B * x + E};
}

/// Root mean square of the left side over the points; NaN for none.
template <typename Points>
double rmsValue(const Conic& conic, const Points& points) {
    double sum = 0;
    for (const auto& point : points) {
        const double value = valueAt(conic, point.x, point.y);
        sum += value * value;
    }
    return std::sqrt(sum / static_cast<double>(points.size()));
}

/// Symmetric M with (x, y, 1) M (x, y, 1)^T the left side.
inline cv::Matx33d matrixOf(const Conic& conic) {
    const auto& [A, B, C, D, E, F] = conic;
    return {A, 0.5 * B, 0.5 * D, 0.5 * B, C, 0.5 * E, 0.5 * D, 0.5 * E, F};
}

/// The conic of a matrix that need not be symmetric to the last bit.
inline Conic conicOf(const cv::Matx33d& m) {
    return {m(0, 0), m(0, 1) + m(1, 0), m(1, 1), m(2, 0) + m(0, 2), m(2, 1) + m(1, 2), m(2, 2)};
}

/// The conic as it is after a homography whose inverse is `back`: back^T M back.
inline Conic mapped(const Conic& conic, const cv::Matx33d& back) {
    return conicOf(back.t() * matrixOf(conic) * back);
}

/// Conic of an ellipse, -1 at its centre. With half axes a, b along the rectangle's width and height, its angle t and
/// its centre (x0, y0):
///   A = cos^2 t / a^2 + sin^2 t / b^2,  B = (1 / a^2 - 1 / b^2) 2 sin t cos t,  C = sin^2 t / a^2 + cos^2 t / b^2,
///   D = -2 A x0 - B y0,  E = -B x0 - 2 C y0,  F = A x0^2 + B x0 y0 + C y0^2 - 1.
/// The half axes, their squares, the angle with its sine and cosine, and A and C are formed in single precision, like
/// the ellipse they come from; the rest in double.
///
/// @param rect  both sides above 0, px; angle in degrees.
inline Conic conicOf(const cv::RotatedRect& rect) {
    const auto alpha = static_cast<float>(0.5 * rect.size.width);
    const auto beta = static_cast<float>(0.5 * rect.size.height);
    const auto theta = static_cast<float>(rect.angle * std::numbers::pi / 180.0);
    const float s = std::sin(theta);
    const float c = std::cos(theta);
    const float s2 = s * s;
    const float c2 = c * c;
    const float alpha2 = alpha * alpha;
    const float beta2 = beta * beta;
    const double cx = rect.center.x;
    const double cy = rect.center.y;

    const double A = c2 / alpha2 + s2 / beta2;
    const double B = (1.0 / alpha2 - 1.0 / beta2) * (2.0 * s * c);
    const double C = s2 / alpha2 + c2 / beta2;
    const double D = -2.0 * A * cx - cy * B;
    const double E = -B * cx - 2.0 * C * cy;
    const double F = cx * B * cy + cx * A * cx + cy * C * cy - 1.0;
    return {A, B, C, D, E, F};
}

/// Pi in single precision. The angle of `ellipseOf` is brought into range with this one and turned into degrees with
/// the other, and the difference shows in its last digit.
inline constexpr double kSinglePi = std::numbers::pi_v<float>;

/// Ellipse of a conic of either sign: `width` along `angle`, degrees in [0, 180].
///
/// Nothing is refused: a conic whose quadratic part is singular (a parabola, or nothing at all) gives a centre of (0,
/// 0), an axis that vanishes gives axes of 0, and a hyperbola gives the axes of its absolute values.
inline cv::RotatedRect ellipseOf(const Conic& conic) {
    constexpr double kLeastCoefficient = 1e-10;  // a quadratic coefficient below it makes no axis
    const auto& [A, B, C, D, E, F] = conic;
    cv::RotatedRect result;
    Eigen::Matrix2d quadratic;
    quadratic << 2 * A, B, B, 2 * C;
    const Eigen::FullPivLU<Eigen::Matrix2d> solver(quadratic);
    if (solver.rank() == 2) {
        const Eigen::Vector2d centre = solver.solve(Eigen::Vector2d(-D, -E));
        result.center = {static_cast<float>(centre.x()), static_cast<float>(centre.y())};
    }
    const double x = result.center.x;
    const double y = result.center.y;
    const double v = (x * B) * y + (x * A) * x + (y * C) * y - F;  // minus the left side at the centre
    const double sign = v > 0.0 ? 1.0 : -1.0;

    double phi = 0.5 * std::atan2(sign * B, (A - C) * sign);
    if (phi < 0.0) phi += kSinglePi;
    if (phi >= kSinglePi) phi -= kSinglePi;
    result.angle = static_cast<float>(phi * 180.0 / std::numbers::pi);

    const double c = std::cos(phi);
    const double s = std::sin(phi);
    const double alongPhi = c * A * c + (c * B) * s + s * C * s;
    const double acrossPhi = s * A * s - (c * B) * s + c * C * c;
    if (std::abs(alongPhi) <= kLeastCoefficient || std::abs(acrossPhi) <= kLeastCoefficient) return result;
    result.size = {static_cast<float>(2 * std::sqrt(std::abs(v / alongPhi))),
                   static_cast<float>(2 * std::sqrt(std::abs(v / acrossPhi)))};
    return result;
}

}  // namespace kestrune::geometry
