// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <opencv2/core.hpp>

namespace kestrune {

/// Displacement of a projected circle's centre, and the normal that it was computed with.
struct Eccentricity {
    double x, y;       ///< components, unit of the principal distance
    double norm;       ///< length of (x, y)
    cv::Vec3d normal;  ///< of the circle's plane, of either sense
};

/// The computation behind `CircleMarkerExtractor::correctedEccentricityAhn`, without the drawing.
///
/// @param position           centre of the circle, camera frame that looks along -z.
/// @param ellipse            axes and angle are read; the cone is that of the ellipse moved to the principal point.
/// @param principalDistance  f, unit of the ellipse's axes.
/// @param circleRadius       R, unit of `position`.
/// @return all NaN for input that is not finite, for an ellipse without width or height, for f = 0, and where the cone
///         is not that of an ellipse (all eigenvalues of one sign). x, y and norm are NaN where the normal comes out
///         along the optical axis.
Eccentricity eccentricityAhn(const cv::Vec3d& position, const cv::RotatedRect& ellipse, double principalDistance,
                             double circleRadius);

}  // namespace kestrune
