// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <opencv2/core.hpp>
#include <vector>

#include "ellipsedetection/contour_refinement.h"
#include "ellipsedetection/ellipse_merging.h"
#include "ellipsedetection/ellipse_record.h"

namespace kestrune {

/// Fills a record from a fitted ellipse, with the conic of `geometry::conicOf`.
///
/// @param rect      both sides above 0.
/// @param residual  `fitResidual` for an empty list of points.
/// @param points    px; none leaves `scatter` empty.
void fitConicFromEllipse(EllipseRecord& record, const cv::RotatedRect& rect, double residual,
                         const std::vector<cv::Point2f>& points);

/// The same for whole pixels, without `scatter`: of the first ellipse of a candidate nobody asks for it.
///
/// @param pixels  not empty.
void fitConicToPixels(EllipseRecord& record, const cv::RotatedRect& rect, const std::vector<cv::Point>& pixels);

}  // namespace kestrune
