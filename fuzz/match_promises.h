// SPDX-License-Identifier: Apache-2.0
//
// What a host is promised of a match.
#pragma once

#include "match_calls.h"

namespace kestrune::fuzz {

/// Matches by one thread, by many, and with the lists in another order. Ends the run where a promise does not hold.
///
/// @param seed  of the order.
void checkMatch(const MatchCall& call, unsigned seed);

}  // namespace kestrune::fuzz
