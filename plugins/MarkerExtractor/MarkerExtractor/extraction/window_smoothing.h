// SPDX-License-Identifier: Apache-2.0
//
// A Gaussian over parts of an image, in the bits of `cv::GaussianBlur` over all of it.
#pragma once

#include <cstdint>
#include <opencv2/core.hpp>
#include <vector>

namespace kestrune {

/// What is common to all windows of an image.
struct SmoothingPlan {
    /// @param aperture  side of the kernel, px, odd, 3 or more.
    /// @param sigma     px, 0 or more; 0: as follows from `aperture`.
    SmoothingPlan(int aperture, double sigma);

    int aperture;
    double sigma;
    int reach;                            ///< px to either side that have a say: outer taps of a wide kernel are 0
    std::vector<std::uint16_t> taps;      ///< 1/256, from the centre outwards
    std::vector<std::uint16_t> rowLanes;  ///< each of them eight times
    std::vector<std::int16_t> pairLanes;  ///< those of both sides and a 0 in pairs, each pair four times
    /// OpenCV was found to smooth as `smoothWindow` does: in whole numbers, by these taps.
    bool isExact = false;
};

/// Storage of a thread, kept from call to call.
struct SmoothingScratch {
    std::vector<std::uint16_t> line;
    std::vector<int> columns;  ///< of a window whose surroundings leave the image, that stand for those outside
    std::vector<std::int16_t> rows;
};

/// Bytes of a row that `smoothWindow` writes for a window of that width.
int smoothedStride(int width);

/// The part of the whole smoothed image, its border reflected, that a window shows.
///
/// @param image   `CV_8UC1`.
/// @param window  within the image, not empty.
/// @param plan    one that `isExact`.
/// @param to      rows of `smoothedStride` bytes, `step` apart; those behind the window's width are of no use.
void smoothWindow(const cv::Mat& image, const cv::Rect& window, const SmoothingPlan& plan, SmoothingScratch& scratch,
                  uchar* to, std::ptrdiff_t step);

}  // namespace kestrune
