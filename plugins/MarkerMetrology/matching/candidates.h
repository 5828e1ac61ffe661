// SPDX-License-Identifier: Apache-2.0
//
// The pairs of markers that may be one at all, each with what its geometry says.
#pragma once

#include <array>
#include <vector>

#include "matching/circle_agreement.h"
#include "matching/scales.h"
#include "matching/views.h"

namespace kestrune::matching {

struct Candidate {
    int left, right;  ///< lines
    Agreement agreement;
};

/// @param window  largest distance of the epipolar planes, in units of `scales.centre` times the told sigma.
/// @returns in ascending order of left, then right; for each left marker 64 at most, the nearest.
std::vector<Candidate> candidatesOf(const Views& views, double baseline, const Scales& scales, double window);

}  // namespace kestrune::matching
