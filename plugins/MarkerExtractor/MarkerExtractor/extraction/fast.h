// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <opencv2/core.hpp>
#include <vector>

#include "MarkerExtractor/extraction/gate_rules.h"
#include "MarkerExtractor/extraction/judged_candidates.h"
#include "kestrune/MarkerExtractor/records.h"

namespace kestrune {

/// Gates of `extractMarkPointsFast`, in the order area, circularity, convexity, fit, eccentricity, of which "fit"
/// cannot be switched off. Unlike on the other paths the largest area is out of range. A bound that is NaN
/// refuses nothing.
struct FastGates : GateTable {
    explicit FastGates(const CicrleConfigs& configs);
};

struct FastVerdict : Verdict {
    double area = 0;          ///< of the contour, px^2
    double eccentricity = 0;  ///< of the ellipse; 0 where its gate is switched off
    cv::RotatedRect rect;     ///< fitted ellipse, once there is a fit
};

/// @param hull  scratch storage.
/// @throws cv::Exception from the fit, for a contour of fewer than five points that came past the first three gates.
FastVerdict judgeFastContour(const std::vector<cv::Point>& contour, const FastGates& gates,
                             std::vector<cv::Point>& hull);

/// The path from an image to its markers.
///
/// @param image     `CV_8UC1`, not empty.
/// @param corners   appended to.
/// @param findings  what became of each candidate; the shapes that lie inside others; and those that the gates would
///                  take if the threshold were another one, with the nearest that shows them. May be null.
void findFastMarkers(const cv::Mat& image, const CicrleConfigs& configs, std::vector<Corner>& corners,
                     Findings* findings);

}  // namespace kestrune
