// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <vector>

#include "MarkerExtractor/stereo/match_record.h"

namespace kestrune {

/// The straight line between two markers of one eye.
struct MarkerEdge {
    std::int32_t first, second;     ///< positions of the ends in the list of markers; `first` is not right of `second`
    const MarkerMatchRecord* from;  ///< record of `first`
    const MarkerMatchRecord* to;    ///< record of `second`
    double length;                  ///< px
    double angle;                   ///< direction from `first` to `second` in the image, rad, -pi/2 to pi/2
};

/// The edges between all markers, shortest first; edges of equal length stand in the order of their ends' positions,
/// and those to a marker without a finite centre stand last. The edges point into `active`'s records.
std::vector<MarkerEdge> buildEdges(const std::vector<const MarkerMatchRecord*>& active);

}  // namespace kestrune
