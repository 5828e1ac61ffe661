// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <opencv2/core.hpp>

#include "fuzz_input.h"

namespace kestrune::fuzz {

/// Of the steps from a window of the image to its edges: whatever there are two ways to, both give the same bits.
///
/// @param grey  `CV_8UC1`, not empty.
void checkEdgeTwins(const cv::Mat& grey, Input& input);

}  // namespace kestrune::fuzz
