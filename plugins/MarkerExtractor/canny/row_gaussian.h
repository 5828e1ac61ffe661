// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <array>
#include <cstdint>
#include <opencv2/core.hpp>
#include <optional>
#include <vector>

namespace kestrune {

/// `cv::GaussianBlur` of an 8-bit image with `cv::BORDER_REFLECT_101`, in the same bits, row by row: what is made of a
/// row can follow while it is in the cache. OpenCV smooths such images with taps in 256ths, whose sum is 256, and
/// rounds once at the end.
class RowGaussian {
  public:
    static constexpr int kLargestRadius = 7;  ///< of the taps that are not zero

    /// @return none where there are more taps, or OpenCV's are not of the expected kind.
    static std::optional<RowGaussian> of(int aperture, double sigma);

    /// What a row needs to be smoothed, made larger where it is too small.
    struct Scratch {
        std::vector<std::uint16_t> sums, highBytes;
    };

    /// Columns that a row of an image of that width is written in; those behind the width mean nothing.
    static int writtenColumns(int width);

    /// @param image  `CV_8UC1`, an image of its own and not a window of a larger one.
    /// @param row    `writtenColumns` pixels.
    /// @param wide   with AVX2, which the machine must have then.
    void smoothRow(const cv::Mat& image, int y, Scratch& scratch, uchar* row, bool wide) const;

  private:
    int radius_ = 0;
    std::array<std::uint16_t, kLargestRadius + 1> taps_{};  ///< from the centre on
};

}  // namespace kestrune
