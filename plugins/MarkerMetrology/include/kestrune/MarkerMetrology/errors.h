// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <stdexcept>
#include <string>
#include <vector>

#include "kestrune/MarkerExtractor/export.h"

namespace kestrune {

/// A file that is not what it should be; the text begins with the file's name.
class KESTRUNE_API InputError : public std::runtime_error {
  public:
    /// @param file     its name, as the caller gave it.
    /// @param problem  what is wrong with the file, without its name.
    InputError(const std::string& file, const std::string& problem);
    /// @param text  the whole text.
    explicit InputError(const std::string& text);
};

/// All that is wrong with one settings file, one problem a line, each with the file's name.
class KESTRUNE_API SettingsError : public InputError {
  public:
    /// @param problems  one line each.
    explicit SettingsError(const std::vector<std::string>& problems);
};

/// A write that failed, with the file's name and the system's reason.
class KESTRUNE_API OutputError : public std::runtime_error {
  public:
    /// @param file    its name.
    /// @param reason  an `errno`.
    OutputError(const std::string& file, int reason);
};

}  // namespace kestrune
