// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <utility>
#include <vector>

#include "MarkerExtractor/stereo/match_record.h"

namespace kestrune {

/// Takes out the pairs whose edges to other pairs differ between the eyes in length or direction. Of two pairs that
/// contradict each other the one that fits the undisputed pairs better stays, or both, if they fit equally well.
///
/// @param pairs  positions in the two lists, all within them; what stays keeps its order.
void pruneInconsistentPairs(const std::vector<const MarkerMatchRecord*>& leftActive,
                            const std::vector<const MarkerMatchRecord*>& rightActive,
                            std::vector<std::pair<int, int>>& pairs, double edgeLengthTolerance,
                            double edgeAngleTolerance);

}  // namespace kestrune
