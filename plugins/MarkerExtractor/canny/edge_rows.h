// SPDX-License-Identifier: Apache-2.0
//
// Derivatives and non-maximum suppression of smoothed rows, where edges may be: most pixels of an image are ruled out
// by differences of grey levels, before any derivative is taken.
#pragma once

#include <array>
#include <opencv2/core.hpp>
#include <optional>
#include <vector>

namespace kestrune {

/// Pixels that may be edges, in the order of rows, then columns.
struct EdgePixels {
    std::vector<cv::Point> candidates;
    std::vector<cv::Point> seeds;  ///< those among them that are edges by themselves
};

/// Smoothed rows one below the other, beyond the image those that the border reflects.
class SmoothedRows {
  public:
    /// Columns on both sides of a row that the border reflects.
    static constexpr int kMargin = 16;

    void begin(int firstRow) {
        first_ = firstRow;
        rows_.clear();
    }
    void add(const uchar* row) { rows_.push_back(row); }
    /// Pointers to column 0 of row y and of its neighbours.
    const uchar* const* at(int y) const { return rows_.data() + (y - first_); }

  private:
    int first_ = 0;
    std::vector<const uchar*> rows_;
};

/// Fills the margins of a row of that width by reflection.
void reflectMargins(uchar* row, int width);

/// Gradient magnitudes of the 3 by 3 neighbourhood of a pixel; the last column means nothing.
using Magnitudes = std::array<std::array<double, 4>, 3>;

/// Three rows of derivatives and squared magnitudes. A group of columns that cannot hold a candidate counts as flat:
/// that changes no comparison with a pixel above the low threshold.
struct GradientRows {
    struct Row {
        std::vector<short> dx, dy;
        std::vector<int> magnitudes;
        std::vector<int> active;  ///< groups of columns that are not flat
        std::size_t activeCount = 0;
    };
    std::array<Row, 3> rows;
};

class EdgeRows {
  public:
    static constexpr int kLargestRadius = 8;  ///< of the derivative kernel

    /// @param kernel    as `makeEdgeDerivativeKernel` gives it.
    /// @param low,high  thresholds in units of the derivatives.
    /// @return          none if the kernel has more taps.
    static std::optional<EdgeRows> of(const cv::Mat& kernel, int low, int high);

    int radius() const { return radius_; }

    /// Finds the local maxima of the magnitude above the low threshold.
    ///
    /// @param rows    from `radius() + 1` above `strip` to as many below.
    /// @param strip   rows of `bounds`, in all its columns.
    /// @param bounds  beyond it magnitudes count as 0.
    /// @param wide    with AVX2, which the machine must have then.
    /// @param pixels  the result.
    void suppress(const SmoothedRows& rows, const cv::Rect& strip, const cv::Rect& bounds, bool wide,
                  GradientRows& scratch, EdgePixels& pixels) const;

    /// @param rows  at the pixel's row.
    void magnitudesAround(const uchar* const* rows, int x, Magnitudes& magnitudes) const;

  private:
    EdgeRows() = default;
    void fill(const uchar* const* rows, const cv::Rect& bounds, bool wide, GradientRows::Row& row) const;
    void judge(const std::array<const GradientRows::Row*, 3>& rows, const cv::Point& origin, bool wide,
               EdgePixels& pixels) const;

    int radius_ = 0;
    std::array<short, kLargestRadius + 1> taps_{};  ///< from the centre on
    int lowSquared_ = 0, highSquared_ = 0;
    int flatDifference_ = 0;  ///< of grey levels at equal distances, up to which no derivative reaches the threshold
};

}  // namespace kestrune
