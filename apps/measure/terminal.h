// SPDX-License-Identifier: Apache-2.0
//
// What the program tells a person. Neither call ever throws: a measurement does not end for want of a reader.
#pragma once

#include <string>

namespace kestrune::measure {

/// Prints on standard output, at once.
void say(const std::string& text);

/// Prints a line on standard error with the program's name before it.
void complain(const std::string& text);

/// Whether standard output took all that was said. Complains if not, with the system's reason.
bool saidAll();

}  // namespace kestrune::measure
