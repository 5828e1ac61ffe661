// SPDX-License-Identifier: Apache-2.0
//
// Settings files: YAML in which the fields of `CicrleConfigs` stand under their own names. The library has no defaults
// and checks only what would break it, so that a forgotten or misspelt line is caught here, before an image is opened.
#pragma once

#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "setting_fields.h"

namespace kestrune::measure {

struct Settings {
    CicrleConfigs configs;  ///< what the path does not read and the file does not hold is 0
    Path path;
};

/// All that is wrong with one file, one problem a line, each with the file's name.
class SettingsError : public std::runtime_error {
  public:
    explicit SettingsError(const std::vector<std::string>& problems);
};

/// Reads and checks a settings file. It must hold every field that the path reads for this use, and may hold others.
///
/// @param path  the way to take; without one, `useComplexExtract` and then `useRadialContours` of the file decide. Both
///              agree with the path in the result.
/// @throws InputError     for a file that cannot be read or is no YAML, with the line.
/// @throws SettingsError  naming every missing, repeated, unknown, wrongly typed and out-of-range field with line and
///                        value.
Settings loadSettings(const std::string& file, std::optional<Path> path, Use use = Use::extraction);

}  // namespace kestrune::measure
