// SPDX-License-Identifier: Apache-2.0
//
// Where the fit begins for a record that has neither ellipse nor contour.
#pragma once

#include <opencv2/core.hpp>
#include <optional>

#include "kestrune/MarkerExtractor.h"
#include "kestrune_geometry/smooth_ellipse.h"

namespace kestrune::refinement {

/// The circle that the record's area tells, half a pixel about the outline through pixel centres that the area is of;
/// none without an area. In the record's pixels.
std::optional<geometry::SmoothEllipse> circleOfRecord(const Corner& corner);

/// The ellipse with the moments of the pixels about the circle's centre that are on the centre's side of half height;
/// the circle where there is no such spot of about its area.
///
/// @param grey    `CV_8UC1` or `CV_16UC1`
/// @param circle  px of the image
geometry::SmoothEllipse ellipseOfSpot(const cv::Mat& grey, const geometry::SmoothEllipse& circle);

}  // namespace kestrune::refinement
