// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <opencv2/core.hpp>
#include <vector>

#include "kestrune/MarkerExtractor/records.h"

namespace kestrune {

/// One camera of a rectified pair, as `CircleMarkerExtractor::StereoRectifyCorners` takes it.
struct RectifyingCamera {
    const cv::Mat &intrinsic, &distortion, &rectification, &projection, &homography;
};

/// `CircleMarkerExtractor::StereoRectifyCorners` for matrices that are known to be good.
void rectifyCorners(const std::vector<Corner>& source, std::vector<Corner>& target, const RectifyingCamera& camera);

/// An ellipse in single precision: centre in px, full axes in px with `width` along `angle`, angle in degrees, 0 to
/// 180.
struct EllipseParams {
    float angle, width, height, centerX, centerY;
};

/// Ellipse of the conic A x^2 + B x y + C y^2 + D x + E y + F = 0 in pixels, of either sign.
///
/// Nothing is refused: a conic whose quadratic part is singular (a parabola, or nothing at all) gives the centre
/// (0, 0), an axis that vanishes gives axes of 0, and a hyperbola gives the axes of its absolute values.
EllipseParams conicToEllipse(double A, double B, double C, double D, double E, double F);

}  // namespace kestrune
