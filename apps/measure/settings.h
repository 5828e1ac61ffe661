// SPDX-License-Identifier: Apache-2.0
//
// Settings files: YAML in which every field of `CicrleConfigs` stands under its own name. The library has no defaults
// and checks only what would break it, so that a forgotten or misspelt line is caught here, before an image is opened.
#pragma once

#include <kestrune/MarkerExtractor.h>

#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace kestrune::host {

/// The ways from an image to markers that this program offers.
enum class Path {
    simple,   ///< sub-pixel contours
    radial,   ///< radial contours
    fast,     ///< fixed threshold
    complex,  ///< edge-based: markers brighter and darker than their ground at once
    hand,     ///< edges with fixed thresholds
};

const char* nameOf(Path path);

struct Settings {
    CicrleConfigs configs;
    Path path;
};

/// All that is wrong with one file, one problem a line, each with the file's name.
class SettingsError : public std::runtime_error {
  public:
    explicit SettingsError(const std::vector<std::string>& problems);
};

/// Reads and checks a settings file.
///
/// @param path  the way to take; without one, `useComplexExtract` and then `useRadialContours` of the file decide. Both
///              agree with the path in the result.
/// @throws InputError     for a file that cannot be read or is no YAML.
/// @throws SettingsError  naming every missing, repeated, unknown, wrongly typed and out-of-range field with its value.
Settings loadSettings(const std::string& file, std::optional<Path> path);

/// The fields with type, range and meaning, as a table for the terminal.
std::string describeSettings();

}  // namespace kestrune::host
