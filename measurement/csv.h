// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

namespace kestrune::measure {

/// A text as a field of a CSV: in quotes where it holds what separates fields.
std::string csvField(const std::string& text);

/// A number as a field: the shortest decimals that give the same number again, nothing for NaN.
std::string csvField(double value);

}  // namespace kestrune::measure
