// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <vector>

#include "MarkerExtractor/stereo/match_settings.h"
#include "MarkerExtractor/stereo/pair_verdicts.h"
#include "MarkerExtractor/stereo/placed_pair.h"
#include "MarkerExtractor/stereo/rectified_marker.h"

namespace kestrune {

/// The markers of both eyes, and what came of them.
struct RectifiedResult {
    const std::vector<RectifiedMarker>&left, &right;
    const std::vector<PlacedPair>& pairs;
    bool hasConsensus;  ///< of the constellation
};

/// Completes the verdicts of the search for candidates: markers without one get theirs, and candidates that are no
/// pairs of the result are told why.
///
/// @param verdicts  of the search: `PairGate::none` for each candidate.
void explainResult(const RectifiedResult& result, double maxRowDifference, const EdgeTolerances& tolerances,
                   PairVerdicts& verdicts);

}  // namespace kestrune
