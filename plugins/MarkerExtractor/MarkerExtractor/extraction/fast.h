// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <opencv2/core.hpp>
#include <vector>

#include "MarkerExtractor/extraction/ellipse_gates.h"
#include "checks/drops.h"

namespace kestrune {

/// What the gates of `extractMarkPointsFast` say of a contour.
struct FastVerdict {
    Gate refusedBy = Gate::kNone;
    double measured = 0;      ///< value of the gate that refused; 0 if none did
    double area = 0;          ///< of the contour, px^2
    double eccentricity = 0;  ///< of the ellipse; 0 where its gate is switched off
    cv::RotatedRect rect;     ///< fitted ellipse, once there is a fit

    bool accepted() const { return refusedBy == Gate::kNone; }
};

/// Outlines of what is brighter than the path's fixed threshold, the outermost of each.
///
/// @param image  `CV_8UC1`.
std::vector<std::vector<cv::Point>> fastContours(const cv::Mat& image);

/// Runs the gates that are switched on, in the order area, circularity, convexity, fit, eccentricity, of which "fit",
/// for an ellipse that is not finite, cannot be switched off. Unlike on the other paths the largest area is out of
/// range.
///
/// @param hull  scratch storage.
/// @throws cv::Exception from the fit, for a contour of fewer than five points that came past the first three gates.
FastVerdict judgeFastContour(const std::vector<cv::Point>& contour, const CicrleConfigs& configs,
                             std::vector<cv::Point>& hull);

/// Notes the shapes that lie inside others, and those that the gates would take if the threshold were another one, with
/// the nearest that shows them.
void noteFastDrops(const cv::Mat& image, const CicrleConfigs& configs, Drops& drops);

}  // namespace kestrune
