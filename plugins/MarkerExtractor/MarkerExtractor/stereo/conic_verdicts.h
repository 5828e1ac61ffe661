// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <vector>

#include "MarkerExtractor/stereo/conic_rig.h"
#include "MarkerExtractor/stereo/disc_pair.h"
#include "MarkerExtractor/stereo/pair_verdicts.h"
#include "MarkerExtractor/stereo/placed_pair.h"

namespace kestrune {

/// Completes the verdicts of the candidate search: those of the candidates become what their conics said, with the
/// score that each had to beat, and markers in no row band get one of their own.
///
/// @param candidates  in the order in which the search found them.
/// @param verdicts    of the search: `PairGate::none` for each candidate.
void explainCandidates(const std::vector<DiscCandidate>& candidates, const std::vector<DiscMatch>& matches,
                       const RectifiedCentres& centres, const PlaceBounds& bounds, PairVerdicts& verdicts);

}  // namespace kestrune
