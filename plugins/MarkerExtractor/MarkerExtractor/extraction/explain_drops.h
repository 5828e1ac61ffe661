// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

#include "checks/drops.h"
#include "kestrune/MarkerExtractor/records.h"

namespace kestrune {

/// A drop in words.
struct DropText {
    std::string name;    ///< what was met, and the gate
    std::string wanted;  ///< what the front end asks for, with the settings' names
};

/// @param configs  those of the call that noted it.
DropText describe(const Drop& drop, const CicrleConfigs& configs);

}  // namespace kestrune
