// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <opencv2/core.hpp>
#include <span>

namespace kestrune::measure {

/// Decodes a JPEG: grey as `CV_8UC1`, colour as BGR, the pixels those of OpenCV. Which gives a picture with grey where
/// the data end early, or with nonsense where they are damaged; here both are an error.
///
/// @throws std::runtime_error  with what is wrong.
cv::Mat decodeJpeg(std::span<const unsigned char> bytes);

}  // namespace kestrune::measure
