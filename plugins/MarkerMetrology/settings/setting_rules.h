// SPDX-License-Identifier: Apache-2.0
//
// What settings must hold to beyond the range of each field.
#pragma once

#include <array>
#include <span>

#include "kestrune/MarkerMetrology/setting_fields.h"

namespace kestrune {

struct SettingRule {
    std::array<const char*, 2> fields;  ///< the second may be null
    std::array<bool, 5> paths;          ///< where it counts, by `Path`
    bool (*holds)(const CicrleConfigs&);
    const char* wanted;

    bool countsFor(Path path) const { return paths[static_cast<std::size_t>(path)]; }
};

std::span<const SettingRule> settingRules();

/// Whether a path can find anything with these settings: all that its extraction reads is in range, and the rules hold.
bool areUsable(const CicrleConfigs& configs, Path path);

}  // namespace kestrune
