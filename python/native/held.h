// SPDX-License-Identifier: Apache-2.0
//
// What Python objects hold.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "kestrune/MarkerMetrology.h"

namespace kestrune::python {

/// Settings with what they were read for.
struct HeldSettings {
    Settings settings;
    Use use;
    std::string origin;  ///< the file, or "settings"; for the texts of errors
    std::string lacks;   ///< what is missing for an extraction alone, as a text; empty: nothing
};

struct HeldRig {
    Rig rig;
    std::string origin;
};

/// Records that a result and each of its elements share.
using SharedCorners = std::shared_ptr<std::vector<Corner>>;

}  // namespace kestrune::python
