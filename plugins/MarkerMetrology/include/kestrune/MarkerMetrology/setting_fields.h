// SPDX-License-Identifier: Apache-2.0
//
/// @file
/// The fields of a settings file: the one table that reading, checking, listing and the guide go by.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "kestrune/MarkerExtractor.h"

namespace kestrune {

/// The ways from an image to markers.
enum class Path {
    simple,   ///< sub-pixel contours
    radial,   ///< radial contours
    fast,     ///< fixed threshold
    complex,  ///< edge-based: markers brighter and darker than their ground at once
    hand,     ///< edges with fixed thresholds
};

/// "simple", "radial", "fast", "complex" or "hand".
KESTRUNE_API const char* nameOf(Path path);

/// The path of that name, if there is one.
KESTRUNE_API std::optional<Path> pathNamed(const std::string& name);

/// What is done with the markers of a path: a stereo measurement reads more of the settings.
enum class Use { extraction, stereo };

/// A set of pairs of path and use, one bit each.
using Readers = unsigned;

/// The set of this pair alone.
constexpr Readers readerOf(Path path, Use use) {
    return 1U << (2 * static_cast<unsigned>(path) + (use == Use::stereo ? 1 : 0));
}

/// A member of the record, of whatever type it is.
using SettingMember =
    std::variant<bool CicrleConfigs::*, std::int32_t CicrleConfigs::*, float CicrleConfigs::*, double CicrleConfigs::*,
                 std::string CicrleConfigs::*, std::vector<double> CicrleConfigs::*>;

/// One field: its name, where it stands, who reads it, and what it may be.
struct SettingField {
    const char* name;      ///< in files, and of the record's member
    SettingMember member;  ///< where it stands in the record
    Readers readers;       ///< those that need it
    double low = 0;        ///< of numbers, and of each entry of a list; both ends belong to the range
    double high = 0;       ///< the other end; both 0: any number
    const char* meaning;   ///< one line

    /// Whether the path reads it for this use.
    bool isReadBy(Path path, Use use) const { return (readers & readerOf(path, use)) != 0; }
    /// Whether it has a range.
    bool isRanged() const { return low != high; }
};

/// In the order of the record.
KESTRUNE_API const std::vector<SettingField>& settingFields();

/// "0 to 10", or nothing.
KESTRUNE_API std::string rangeText(const SettingField& field);

/// "simple, radial" for those of an extraction, "stereo" for a field that only the matching reads.
KESTRUNE_API std::string readersText(const SettingField& field);

/// The fields with type, range, readers and meaning, as a table for the terminal.
KESTRUNE_API std::string describeSettings();

}  // namespace kestrune
