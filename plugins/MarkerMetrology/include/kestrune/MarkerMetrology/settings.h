// SPDX-License-Identifier: Apache-2.0
//
/// @file
/// Settings files: YAML in which the fields of `CicrleConfigs` stand under their own names. The first library has no
/// defaults and checks only what would break it, so that a forgotten or misspelt line is caught here, before an image
/// is opened.
#pragma once

#include <optional>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "kestrune/MarkerExtractor.h"
#include "kestrune/MarkerMetrology/errors.h"
#include "kestrune/MarkerMetrology/setting_fields.h"

namespace kestrune {

/// The settings of one path.
struct Settings {
    CicrleConfigs configs;  ///< what the path does not read and the file does not hold is 0
    Path path;              ///< the way that they are for; `useComplexExtract` and `useRadialContours` agree with it
};

/// Reads and checks a settings file. It must hold every field that the path reads for this use, and may hold others.
///
/// @param file  its name, for the texts of errors as well.
/// @param path  the way to take; without one, `useComplexExtract` and then `useRadialContours` of the file decide.
/// @param use   what is done with the markers: that of stereo needs more fields.
/// @throws InputError     for a file that cannot be read or is no YAML, with the line.
/// @throws SettingsError  naming every missing, repeated, unknown, wrongly typed and out-of-range field with line and
///                        value.
KESTRUNE_API Settings readSettings(const std::string& file, std::optional<Path> path = {}, Use use = Use::extraction);

/// One value of a field, as a program holds it.
using SettingValue = std::variant<bool, std::int64_t, double, std::string, std::vector<double>>;

/// The same of values that a program holds, under the fields' names.
///
/// @param values  at most one for a field; fields that the path does not read may be missing.
/// @param path    as `readSettings`.
/// @param use     as `readSettings`.
/// @param origin  stands for the file in the texts of errors, which name no line.
/// @throws SettingsError  as `readSettings`.
KESTRUNE_API Settings settingsOf(const std::vector<std::pair<std::string, SettingValue>>& values,
                                 std::optional<Path> path = {}, Use use = Use::extraction,
                                 const std::string& origin = "settings");

/// Writes settings to a file. One that is there keeps its comments, the order of its fields and all that is not of a
/// field: values that differ are changed where they stand, and fields that the path reads are added at the end where
/// they are missing. A new file holds the fields that the path reads for this use, and others that
/// hold something, each with its meaning.
///
/// What is written gives the same settings when it is read again: numbers have the shortest decimals that do.
///
/// @throws SettingsError  for values out of range, as `readSettings` has it: nothing is written that could not be read.
/// @throws InputError     for a file that is there and is no settings file, and where it cannot be written.
/// @throws OutputError    when the write fails; what was there stays.
KESTRUNE_API void writeSettings(const std::string& file, const Settings& settings, Use use = Use::extraction);

}  // namespace kestrune
