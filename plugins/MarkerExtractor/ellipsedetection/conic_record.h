// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <opencv2/core.hpp>
#include <vector>

#include "ellipsedetection/contour_refinement.h"
#include "ellipsedetection/ellipse_merging.h"
#include "ellipsedetection/ellipse_record.h"

namespace kestrune {

/// Fills a record from a fitted ellipse. With half axes a, b along the rectangle's width and height, its angle t and
/// its centre (x0, y0):
///   A = cos^2 t / a^2 + sin^2 t / b^2,  B = (1 / a^2 - 1 / b^2) 2 sin t cos t,  C = sin^2 t / a^2 + cos^2 t / b^2,
///   D = -2 A x0 - B y0,  E = -B x0 - 2 C y0,  F = A x0^2 + B x0 y0 + C y0^2 - 1.
/// The half axes, their squares, the angle with its sine and cosine, and A and C are formed in single precision, like
/// the ellipse they come from; the rest in double.
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
