// SPDX-License-Identifier: Apache-2.0
#include "checks/fixed_text.h"

#include <array>
#include <charconv>
#include <limits>

namespace kestrune {

namespace {

constexpr std::size_t kMostDecimals = 20;

}  // namespace

std::string fixedText(double value, int decimals) {
    std::array<char, std::numeric_limits<double>::max_exponent10 + kMostDecimals + 4> text;  // sign, point
    const auto end =
        std::to_chars(text.data(), text.data() + text.size(), value, std::chars_format::fixed, decimals).ptr;
    return {text.data(), end};
}

}  // namespace kestrune
