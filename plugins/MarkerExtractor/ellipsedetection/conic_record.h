// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <Eigen/Core>
#include <array>
#include <opencv2/core.hpp>
#include <vector>

namespace kestrune {

/// An ellipse with its conic and what the contour points say of it.
struct EllipseRecord {
    cv::RotatedRect ellipse;      ///< centre, full axes, angle in degrees
    double fitResidual = 0;       ///< root mean square of the conic's value over the points
    bool conicValid = false;      ///< `conic` is filled
    std::array<double, 6> conic;  ///< A..F of A x^2 + B x y + C y^2 + D x + E y + F: -1 at the centre, 0 on the ellipse
    Eigen::MatrixXd scatter;      ///< M^T M, 6 by 6, of the rows (x^2, x y, y^2, x, y, 1)
};

/// Fills a record from a fitted ellipse. With half axes a, b along the rectangle's width and height, its angle t and
/// its centre (x0, y0):
///   A = cos^2 t / a^2 + sin^2 t / b^2,  B = (1 / a^2 - 1 / b^2) 2 sin t cos t,  C = sin^2 t / a^2 + cos^2 t / b^2,
///   D = -2 A x0 - B y0,  E = -B x0 - 2 C y0,  F = A x0^2 + B x0 y0 + C y0^2 - 1.
/// The half axes, their squares and A and C are formed in single precision, like the ellipse they come from; the rest
/// in double.
///
/// @param rect      both sides above 0.
/// @param residual  `fitResidual` for an empty list of points.
/// @param points    px; none leaves `scatter` empty.
void fitConicFromEllipse(EllipseRecord& record, const cv::RotatedRect& rect, double residual,
                         const std::vector<cv::Point2f>& points);

}  // namespace kestrune
