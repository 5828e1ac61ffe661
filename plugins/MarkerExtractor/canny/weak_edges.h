// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <opencv2/core.hpp>

#include "checks/drops.h"

namespace kestrune {

/// Notes the lines of pixels that are no edge because none of them is strong enough, with the strongest of each.
///
/// @param all        `CV_8UC1`, other than 0 on every pixel above the lower threshold.
/// @param edges      the same, of the edges alone.
/// @param heights    `CV_32FC1`: the sharp step that each pixel would be, grey levels.
/// @param wanted     the cause, and what one pixel of an edge reaches, grey levels.
/// @param minPixels  of a line that counts.
void noteWeakEdges(const cv::Mat& all, const cv::Mat& edges, const cv::Mat& heights, const Drop& wanted, int minPixels,
                   Drops& drops);

}  // namespace kestrune
