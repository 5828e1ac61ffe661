// SPDX-License-Identifier: Apache-2.0
#pragma once

namespace kestrune {

/// An ellipse in single precision: centre in px, full axes in px with `width` along `angle`, angle in degrees in [0,
/// 180].
struct EllipseParams {
    float angle, width, height, centerX, centerY;
};

/// Ellipse of the conic A x^2 + B x y + C y^2 + D x + E y + F = 0 in pixels, of either sign.
///
/// Nothing is refused: a conic whose quadratic part is singular (a parabola, or nothing at all) gives a centre of (0,
/// 0), an axis that vanishes gives axes of 0, and a hyperbola gives the axes of its absolute values.
EllipseParams conicToEllipse(double A, double B, double C, double D, double E, double F);

}  // namespace kestrune
