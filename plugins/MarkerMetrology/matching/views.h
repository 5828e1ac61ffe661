// SPDX-License-Identifier: Apache-2.0
//
// Both eyes' markers as sightlines, in an order of their own: by epipolar plane, so that neither the order of the lists
// nor anything else that a host chooses enters a result.
#pragma once

#include <array>
#include <vector>

#include "matching/sightline.h"

namespace kestrune::matching {

struct Views {
    std::array<std::vector<Sightline>, 2> lines;
    std::array<std::vector<int>, 2> number;  ///< of each line in the caller's list
    /// Of each line the numbers of other markers that are the same in all that decides: a marker that is given twice
    /// has one line, or its copies would bear each other out.
    std::array<std::vector<std::vector<int>>, 2> copies;
};

/// Without the estimates that have no sightline.
///
/// @param markers  of the eyes whose cameras are the first and the second of the frame.
Views viewsOf(const std::array<const std::vector<MarkerEstimate>*, 2>& markers, const EpipolarFrame& frame);

}  // namespace kestrune::matching
