// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <opencv2/core.hpp>
#include <span>

namespace kestrune::measure {

/// Decodes a PNG of 8 or 16 bits: grey as one channel, all else as BGR without transparency, the pixels those of
/// OpenCV. Which lets the library print what it meets; here it is the error's text.
///
/// @throws std::runtime_error  with what is wrong.
cv::Mat decodePng(std::span<const unsigned char> bytes);

}  // namespace kestrune::measure
