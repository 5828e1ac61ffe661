// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <opencv2/core.hpp>
#include <vector>

#include "MarkerExtractor/extraction/contour_verdict.h"
#include "MarkerExtractor/extraction/gate_rules.h"
#include "MarkerExtractor/extraction/judged_candidates.h"
#include "checks/drops.h"
#include "kestrune/MarkerExtractor/records.h"

namespace kestrune {

/// Gates of `CircleExtractSimpleForHand`, in the order area, compactness, fit, eccentricity, fit error. Unlike on the
/// default path the fit error alone decides: that every point keeps to `maxPointError` does not save a contour. A bound
/// that is NaN refuses nothing.
struct HandGates : GateTable {
    explicit HandGates(const CicrleConfigs& configs);
};

/// @param contour  closed, in whole pixels, not empty.
/// @throws cv::Exception from the fit, for a contour of fewer than five points that came past area and compactness.
GateVerdict judgeHandContour(const std::vector<cv::Point>& contour, const HandGates& gates);

/// Adds an accepted candidate unless its centre lies within its own smaller half axis of a marker's. Of the two the one
/// with the smaller ellipse stays: the inner edge of a ring. Exactly equal centres count as two markers. The id told is
/// the place in the list, since this path gives none.
Admission admitHandMarker(const GateVerdict& verdict, std::vector<Corner>& corners);

/// The path from an image to its markers.
///
/// @param image     `CV_8U` with 1, 3 or 4 channels, not empty.
/// @param corners   appended to.
/// @param findings  what became of each candidate, and what was never one; may be null.
void findHandMarkers(const cv::Mat& image, const CicrleConfigs& configs, std::vector<Corner>& corners,
                     Findings* findings);

}  // namespace kestrune
