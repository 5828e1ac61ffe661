// SPDX-License-Identifier: Apache-2.0
//
// What was found, in the terms of the host.
#pragma once

#include "kestrune/MarkerMetrology/matching.h"
#include "matching/attempt.h"

namespace kestrune::matching {

/// @param told  the rig as the host has it.
StereoMatch reportOf(const MarkerLists& markers, const RigMatrices& told, const MatchOptions& options,
                     const Attempts& attempts);

}  // namespace kestrune::matching
