// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <opencv2/core.hpp>
#include <vector>

namespace kestrune {

/// Root mean square distance of points from an ellipse, along the ray from its centre.
///
/// @param error       result, px; NaN for no points.
/// @param pointLimit  px.
/// @return            whether no point is farther from the ellipse than `pointLimit`; true for no points.
bool ellipseFitError(const cv::RotatedRect& ellipse, const std::vector<cv::Point2f>& points, double& error,
                     const double& pointLimit);
bool ellipseFitError(const cv::RotatedRect& ellipse, const std::vector<cv::Point>& points, double& error,
                     const double& pointLimit);

}  // namespace kestrune
