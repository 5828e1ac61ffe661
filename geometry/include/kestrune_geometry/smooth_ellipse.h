// SPDX-License-Identifier: Apache-2.0
//
// Ellipses by five numbers that are smooth everywhere, also at circles, where the angle of an ellipse is not: the ones
// to fit, to differentiate and to give a covariance of.
#pragma once

#include <cmath>
#include <numbers>
#include <opencv2/core.hpp>

#include "kestrune_geometry/conic.h"

namespace kestrune::geometry {

/// With half axes a >= b and the angle t of the larger one: s = (a + b) / 2, e = (a - b) / 2 (cos 2t, sin 2t). As
/// complex numbers the curve is z(u) = c + s exp(i u) + e exp(-i u), linear in all five.
struct SmoothEllipse {
    double x = 0, y = 0;    ///< centre, px
    double s = 0;           ///< mean of the half axes, px
    double e1 = 0, e2 = 0;  ///< px; below s together

    double difference() const { return std::hypot(e1, e2); }
    double majorHalfAxis() const { return s + difference(); }
    double minorHalfAxis() const { return s - difference(); }
    /// Of the major axis, radians in [0, pi), from x towards y; 0 for a circle.
    double angle() const {
        const double t = 0.5 * std::atan2(e2, e1);
        return t < 0 ? t + std::numbers::pi : t;
    }
    /// Half of the extent along x and y, px.
    cv::Point2d halfSize() const { return {std::hypot(s + e1, e2), std::hypot(s - e1, e2)}; }
    /// Ramanujan's first approximation, px.
    double perimeter() const {
        const double a = majorHalfAxis(), b = minorHalfAxis();
        return std::numbers::pi * (3 * (a + b) - std::sqrt((3 * a + b) * (a + 3 * b)));
    }
    cv::Point2d at(double u) const {
        const double c = std::cos(u), d = std::sin(u);
        return {x + (s + e1) * c + e2 * d, y + (s - e1) * d + e2 * c};
    }
    bool isFinite() const {
        return std::isfinite(x) && std::isfinite(y) && std::isfinite(s) && std::isfinite(e1) && std::isfinite(e2);
    }

    /// @param a, b   half axes, px, in any order
    /// @param angle  of a, radians
    static SmoothEllipse of(const cv::Point2d& centre, double a, double b, double angle) {
        const double d = 0.5 * (a - b);
        return {centre.x, centre.y, 0.5 * (a + b), d * std::cos(2 * angle), d * std::sin(2 * angle)};
    }
    static SmoothEllipse of(const cv::RotatedRect& rect) {
        return of(rect.center, 0.5 * rect.size.width, 0.5 * rect.size.height, rect.angle * std::numbers::pi / 180);
    }
};

/// How far one ellipse is from another, px: centres, sizes and shapes together.
inline double distance(const SmoothEllipse& a, const SmoothEllipse& b) {
    return std::hypot(a.x - b.x, a.y - b.y) + std::abs(a.s - b.s) + std::hypot(a.e1 - b.e1, a.e2 - b.e2);
}

/// Symmetric matrix of the conic, scaled to -1 at the centre: with V = [a b-axes outer products] the curve is
/// (p - c)^T Q (p - c) = 1, where Q^-1 = [s^2 + |e|^2 + 2 s e1, 2 s e2; 2 s e2, s^2 + |e|^2 - 2 s e1].
inline cv::Matx33d matrixOf(const SmoothEllipse& ellipse) {
    const auto& [x, y, s, e1, e2] = ellipse;
    const double round = s * s + e1 * e1 + e2 * e2, p = round + 2 * s * e1, q = 2 * s * e2, r = round - 2 * s * e1;
    const double determinant = p * r - q * q;
    const double A = r / determinant, B = -q / determinant, C = p / determinant;
    const double D = -(A * x + B * y), E = -(B * x + C * y);
    return {A, B, D, B, C, E, D, E, -(D * x + E * y) - 1};
}

/// The dual conic, scaled to -1 in its last place: c c^T - Q^-1 and so on, whatever the ellipse's centre.
inline cv::Matx33d dualOf(const SmoothEllipse& ellipse) {
    const auto& [x, y, s, e1, e2] = ellipse;
    const double round = s * s + e1 * e1 + e2 * e2;
    return {round + 2 * s * e1 - x * x,
            2 * s * e2 - x * y,
            -x,
            2 * s * e2 - x * y,
            round - 2 * s * e1 - y * y,
            -y,
            -x,
            -y,
            -1};
}

/// The ellipse of a dual conic of either sign and any scale; not finite where it is none.
inline SmoothEllipse ellipseOfDual(const cv::Matx33d& dual) {
    const double k = -1 / dual(2, 2);
    const double x = -k * dual(0, 2), y = -k * dual(1, 2);
    const double p = k * dual(0, 0) + x * x, q = k * dual(0, 1) + x * y, r = k * dual(1, 1) + y * y;
    // The half axes' squares are the eigenvalues of [p q; q r]; their product of roots gives s without the angle.
    const double s = 0.5 * std::sqrt(p + r + 2 * std::sqrt(p * r - q * q));
    return {x, y, s, 0.25 * (p - r) / s, 0.5 * q / s};
}

}  // namespace kestrune::geometry
