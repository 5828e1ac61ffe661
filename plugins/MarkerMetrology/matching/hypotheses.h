// SPDX-License-Identifier: Apache-2.0
//
// Assignments that are wrong as a whole. Where a pattern repeats, all its rows can be shifted together, and each
// shifted assignment teaches a scene in which it is right. So several are tried, each with all that it teaches, and
// compared: by the density of all that was seen, and by that of the markers which both match. The second does not
// count markers that are left over, for a row or column more than the other eye sees is no evidence: fields of view
// end.
#pragma once

#include <vector>

#include "matching/exposure_solver.h"

namespace kestrune::matching {

struct Decision {
    Solution best;
    bool repeats = false;  ///< another assignment is about as probable
    Solution rival;        ///< that one
};

Decision decide(const Views& views, const ExposureSolver& solver);

}  // namespace kestrune::matching
