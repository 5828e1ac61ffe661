// SPDX-License-Identifier: Apache-2.0
//
// Where a marker may lie that is in no pair: the density of its place among the other markers of its eye. In clusters
// and on level rows markers meet by chance far more often than if they were spread over the image.
#pragma once

#include <vector>

#include "matching/sightline.h"

namespace kestrune::matching {

/// Logarithm of the density of (phi, alpha) at each marker, by kernels at all others.
///
/// @param lines  in ascending order of phi.
std::vector<double> placeDensities(const std::vector<Sightline>& lines);

}  // namespace kestrune::matching
