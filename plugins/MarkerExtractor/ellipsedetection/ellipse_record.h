// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <Eigen/Core>
#include <array>
#include <opencv2/core.hpp>

namespace kestrune {

/// An ellipse with its conic and what the contour points say of it.
struct EllipseRecord {
    cv::RotatedRect ellipse;      ///< centre, full axes, angle in degrees
    double fitResidual = 0;       ///< root mean square of the conic's value over the points
    bool conicValid = false;      ///< `conic` is filled
    std::array<double, 6> conic;  ///< A..F of A x^2 + B x y + C y^2 + D x + E y + F: -1 at the centre, 0 on the ellipse
    Eigen::MatrixXd scatter;      ///< M^T M, 6 by 6, of the rows (x^2, x y, y^2, x, y, 1)
};

/// An ellipse and on which side of its rim the image is brighter.
struct PolarEllipse {
    EllipseRecord record;
    bool brightInside = false;
};

}  // namespace kestrune
