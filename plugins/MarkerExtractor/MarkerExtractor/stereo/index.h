// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>

namespace kestrune {

/// The number of a marker, an edge or a thread as a place in a list: numbers are `int` in the records and in OpenMP.
///
/// @param number  not negative.
constexpr std::size_t asIndex(int number) {
    return static_cast<std::size_t>(number);
}

}  // namespace kestrune
