// SPDX-License-Identifier: Apache-2.0
//
// Where the fields of a YAML text stand. OpenCV's reader, which knows its own matrices, does not tell lines.
#pragma once

#include <map>
#include <string>

namespace kestrune {

class FieldLines {
  public:
    /// @param text  of a settings or calibration file; one that cannot be parsed gives no lines.
    explicit FieldLines(const std::string& text);

    /// "line 12: " for a field such as M1 or cameras.left.fx; for one that is missing the line of what should hold it.
    /// Empty where no line is known.
    std::string before(const std::string& field) const;

  private:
    std::map<std::string, int> lines_;  ///< by name, with dots
};

}  // namespace kestrune
