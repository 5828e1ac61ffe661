// SPDX-License-Identifier: Apache-2.0
//
// Whole assignments to begin with. Where a pattern repeats, each row of it can be shifted, and what is learnt from an
// exposure then confirms whatever it was learnt from. So several assignments are grown, each from another partner of
// one marker: outwards over the image, every next marker taking the partner whose depth goes on from its neighbours'.
#pragma once

#include <vector>

#include "matching/candidates.h"

namespace kestrune::matching {

/// @param worth  of each candidate, nats; those below `least` take no part.
/// @param most   assignments at most, those of the largest sum of worth first.
/// @returns lists of candidates, no two of them nearly alike.
std::vector<std::vector<int>> grownAssignments(const Views& views, const std::vector<Candidate>& candidates,
                                               const std::vector<double>& worth, double least, int most);

}  // namespace kestrune::matching
