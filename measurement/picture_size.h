// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>

namespace kestrune::measure {

/// As OpenCV: what is larger is no photograph but a head that is damaged, and must not eat the machine's memory.
constexpr std::uint64_t kMostPixels = 1 << 30;
constexpr std::uint64_t kLongestSide = 1 << 20;

/// @throws std::runtime_error
inline void requireSize(std::uint64_t width, std::uint64_t height) {
    if (width == 0 || height == 0 || width > kLongestSide || height > kLongestSide || width * height > kMostPixels)
        throw std::runtime_error("its head tells a size of " + std::to_string(width) + " x " + std::to_string(height) +
                                 " px");
}

}  // namespace kestrune::measure
