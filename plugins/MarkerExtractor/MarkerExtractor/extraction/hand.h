// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <opencv2/core.hpp>
#include <vector>

#include "MarkerExtractor/extraction/ellipse_gates.h"
#include "checks/drops.h"

namespace kestrune {

/// Outlines of strong edges, the outermost of each.
///
/// @param image  `CV_8U` with 1, 3 or 4 channels.
std::vector<std::vector<cv::Point>> handContours(const cv::Mat& image);

/// Notes the lines of pixels above the lower threshold of an edge none of which reaches the upper one.
void noteHandDrops(const cv::Mat& image, Drops& drops);

/// Gates of `CircleExtractSimpleForHand`, in the order area, compactness, fit, eccentricity, fit error. "Fit" refuses
/// an ellipse that is not finite. Unlike on the default path the fit error alone decides: that every point keeps to
/// `maxPointError` does not save a contour.
///
/// @param contour  closed, in whole pixels, not empty.
/// @param configs  read are `minArea`, `maxArea`, `maxEccentricity`, `maxFitError` and `maxPointError`; a bound that is
///                 not a number refuses nothing.
/// @throws cv::Exception from the fit, for a contour of fewer than five points that came past area and compactness.
GateVerdict judgeHandContour(const std::vector<cv::Point>& contour, const CicrleConfigs& configs);

/// Adds an accepted candidate unless its centre lies within its own smaller half axis of a marker's. Of the two the one
/// with the smaller ellipse stays: the inner edge of a ring. Exactly equal centres count as two markers. The id told is
/// the place in the list, since this path gives none.
Admission admitHandMarker(const GateVerdict& verdict, std::vector<Corner>& corners);

}  // namespace kestrune
