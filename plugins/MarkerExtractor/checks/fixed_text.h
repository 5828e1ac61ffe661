// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

namespace kestrune {

/// A number with a fixed count of decimals, in the form of "%.2f" but with a point whatever the process's locale says.
std::string fixedText(double value, int decimals);

}  // namespace kestrune
