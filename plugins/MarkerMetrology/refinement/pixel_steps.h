// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <vector>

#include "refinement/marker_window.h"

namespace kestrune::refinement {

/// Variance of a pixel by the differences of neighbours, those beyond three standard deviations left out: what lies
/// over a part of the pixels shows only at its edges. 0 for fewer than eight differences.
double varianceBySteps(const std::vector<FlatRun>& runs);

}  // namespace kestrune::refinement
