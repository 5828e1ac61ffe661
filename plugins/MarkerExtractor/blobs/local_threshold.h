// SPDX-License-Identifier: Apache-2.0
//
// Rows of an adaptive threshold, without images of floats: what is brighter than its smoothed surroundings, in the bits
// of `cv::adaptiveThreshold` with a Gaussian block.
#pragma once

#include <cstdint>
#include <opencv2/core.hpp>
#include <vector>

namespace kestrune {

/// What is common to all rows of a threshold.
struct ThresholdPlan {
    /// @param aperture    side of the block, px, odd, 3 or more.
    /// @param thresholdC  grey levels, any.
    ThresholdPlan(int aperture, int thresholdC);

    /// A pixel is bright if it exceeds the rounded mean of its surroundings by more than this.
    int excess() const { return -constant; }
    int reach() const { return aperture / 2; }

    int aperture;
    int constant;                      ///< grey levels, as the threshold uses it
    std::vector<float> taps;           ///< of the Gaussian, `aperture` of them
    std::vector<std::uint16_t> lanes;  ///< of the whole-number mean: from the centre outwards, each one eight times
    int terms;                         ///< of them
    int doubt;          ///< greatest error of the whole-number mean, 1/64 grey level; too great for a decision from ..
    double floatDoubt;  ///< .. `kUselessDoubt` on. And of a mean in single precision, grey levels
};

/// Storage of a thread, kept from call to call.
struct ThresholdScratch {
    std::vector<std::uint16_t> widened;  ///< rows of the image in 1/128 grey levels with repeated borders, in a ring
    std::vector<std::uint16_t> column;   ///< a row of means along the columns
    std::vector<const std::uint16_t*> rows;
    std::vector<double> sums;
    std::vector<uchar> bright;  ///< rows of the result, `stride` apart: not 0 where a pixel is bright
    std::size_t stride = 0;     ///< whole words; what is behind a row's end is 0
    std::vector<char> isEmpty;  ///< of each row: no pixel is bright
    std::vector<int> undecided;
    cv::Mat redone;
};

/// The threshold of some rows of an image, whose other rows are looked at as far as the block reaches. Means in whole
/// numbers decide nearly all pixels, a mean in double precision most others; the row of a pixel that rounding could
/// turn is decided by `cv::adaptiveThreshold`, since its sums in single precision are not the same on every machine.
///
/// @param image    `CV_8UC1`, not empty.
/// @param rows     not empty.
/// @param scratch  `bright`, `stride` and `isEmpty` are the result.
void thresholdRows(const cv::Mat& image, const ThresholdPlan& plan, cv::Range rows, ThresholdScratch& scratch);

}  // namespace kestrune
