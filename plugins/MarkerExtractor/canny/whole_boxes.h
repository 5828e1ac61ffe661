// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <opencv2/core.hpp>
#include <vector>

namespace kestrune {

/// Widest box of `boxOfWhole`. OpenCV scales the sums of a box in single precision; up to this width that is the true
/// mean rounded to a whole number: a mean of n = 49 pixels of 16 bits is at least 1 / 98 away from where it turns, and
/// single precision is off by no more than 1 / 128.
constexpr int kWidestWholeBox = 7;

/// Mean over the square around each pixel, to the nearest whole number; the border repeats the outermost pixels of
/// `src`, whatever lies around it. The bits of `cv::boxFilter` to `CV_16U` with `BORDER_REPLICATE | BORDER_ISOLATED`,
/// of an 8-bit image as of one raised by 256.
///
/// @param src    `CV_8UC1` or `CV_16UC1`.
/// @param dst    result, `CV_16UC1` of the same size; other pixels than those of `src`.
/// @param width  of the box: 3, 5 or 7.
/// @param sums   scratch, made larger where it is too small.
void boxOfWhole(const cv::Mat& src, cv::Mat& dst, int width, std::vector<std::uint32_t>& sums);

}  // namespace kestrune
