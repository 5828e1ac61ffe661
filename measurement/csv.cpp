// SPDX-License-Identifier: Apache-2.0
#include "csv.h"

#include <fmt/format.h>

#include <cmath>

namespace kestrune::measure {

std::string csvField(const std::string& text) {
    if (text.find_first_of(",\"\r\n") == std::string::npos) return text;
    std::string result = "\"";
    for (const char c : text) result += c == '"' ? std::string("\"\"") : std::string(1, c);
    return result + '"';
}

std::string csvField(double value) {
    return std::isnan(value) ? std::string() : fmt::format("{}", value);
}

}  // namespace kestrune::measure
