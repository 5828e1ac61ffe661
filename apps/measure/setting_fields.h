// SPDX-License-Identifier: Apache-2.0
//
// The fields of a settings file: the one table that reading, checking, listing and the guide go by.
#pragma once

#include <kestrune/MarkerExtractor.h>

#include <span>
#include <string>
#include <variant>

namespace kestrune::measure {

/// The ways from an image to markers that this program offers.
enum class Path {
    simple,   ///< sub-pixel contours
    radial,   ///< radial contours
    fast,     ///< fixed threshold
    complex,  ///< edge-based: markers brighter and darker than their ground at once
    hand,     ///< edges with fixed thresholds
};

const char* nameOf(Path path);

/// What a command does with the markers of a path: a stereo measurement reads more of the settings.
enum class Use { extraction, stereo };

/// A set of pairs of path and use, one bit each.
using Readers = unsigned;

constexpr Readers readerOf(Path path, Use use) {
    return 1U << (2 * static_cast<unsigned>(path) + (use == Use::stereo ? 1 : 0));
}

using SettingMember =
    std::variant<bool CicrleConfigs::*, std::int32_t CicrleConfigs::*, float CicrleConfigs::*, double CicrleConfigs::*,
                 std::string CicrleConfigs::*, std::vector<double> CicrleConfigs::*>;

struct SettingField {
    const char* name;
    SettingMember member;
    Readers readers;
    double low = 0;  ///< of numbers, and of each entry of a list; both ends belong to the range
    double high = 0;
    const char* meaning;

    bool isReadBy(Path path, Use use) const { return (readers & readerOf(path, use)) != 0; }
    bool isRanged() const { return low != high; }
};

/// In the order of the record.
std::span<const SettingField> settingFields();

/// "0 to 10", or nothing.
std::string rangeText(const SettingField& field);

/// "simple, radial" for those of an extraction, "stereo" for a field that only the matching reads.
std::string readersText(const SettingField& field);

/// The fields with type, range, readers and meaning, as a table for the terminal.
std::string describeSettings();

}  // namespace kestrune::measure
