// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <array>
#include <cstddef>
#include <opencv2/core.hpp>
#include <vector>

#include "kestrune/MarkerExtractor/records.h"

namespace kestrune {

/// A measured rim, with what the test for nested rims needs.
struct RimMarker {
    Corner corner;
    std::array<cv::Point2f, 4> extremePoints;  ///< of smallest x, smallest y, largest x, largest y
    bool brightInside;
    std::size_t candidate;  ///< place among the candidates of the call
};

/// Adds a marker unless one of the same polarity stands for it. From the last to the first: where the centre of a known
/// marker lies in the new one's ellipse and all its extreme points do, the new one is dropped: the inner of two nested
/// rims stands. Where the two only overlap, the better fit stays, on a tie the new one. What has lost to the new one is
/// gone, even if that loses to another one afterwards.
///
/// @param marker  with at least one point in its contour.
void admitRim(Corner&& marker, bool brightInside, std::size_t candidate, std::vector<RimMarker>& markers);

}  // namespace kestrune
