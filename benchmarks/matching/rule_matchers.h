// SPDX-License-Identifier: Apache-2.0
//
// The matchers that pair by tolerances: by conics, by the constellation, by what is unambiguous, and by centres.
#pragma once

#include <array>
#include <vector>

#include "matchers.h"

namespace kestrune::bench {

/// By name: conics, constellation, fallback, centres. Tolerances are those of the ready settings; the depths are those
/// of the ready settings in terms of the object's distance, unless the range is told. The contour matchers cannot do
/// without nominal radii: they are always told, and where sizes are continuous, steps through them.
Matched matchByRules(const std::string& name, const MatchingScene& scene, const Told& told);

/// Markers as the matchers take them.
std::array<std::vector<Corner>, 2> recordsOf(const std::array<std::vector<MarkerEstimate>, 2>& markers);

}  // namespace kestrune::bench
