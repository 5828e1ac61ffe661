// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <opencv2/core.hpp>
#include <span>
#include <vector>

#include "canny/edge_rows.h"

namespace kestrune {

/// A map of edges that is touched only where there may be some: between calls all its cells are 0, and a call leaves
/// them so. Each cell is a byte; there is one more on every side of the image.
class EdgeMap {
  public:
    using Cell = signed char;

    /// Makes a map of that size, all 0. Costs nothing if the last call had the same size and ended well.
    void begin(const cv::Size& size);

    /// Marks candidates. Calls for different pixels may run at the same time.
    void mark(const std::vector<cv::Point>& candidates);

    /// Makes edges of the seeds and of all candidates that are linked to one of them by neighbours within the columns
    /// `first` .. `end` - 1.
    ///
    /// @param parts  what was marked there, in the order of rows.
    void link(std::span<const EdgePixels> parts, int first, int end);

    /// Takes the other candidates off the map; the cells of edges hold 1 from here on.
    ///
    /// @param parts  all that was marked: parts below each other, or beside each other, from left to right.
    void settle(std::span<const EdgePixels> parts, bool areBelowEachOther);

    /// Clears the map. Without it the next `begin` does, at the price of an image.
    void end();

    /// Edges in the order of rows, then columns, after `settle`.
    const std::vector<cv::Point>& edges() const { return edges_; }

    /// The cell of a pixel, with that of the next row `step()` behind.
    Cell* at(const cv::Point& pixel) { return cells_.data() + (pixel.y + 1) * step() + pixel.x + 1; }
    std::ptrdiff_t step() const { return size_.width + 2; }
    const cv::Size& size() const { return size_; }

  private:
    template <bool kSeams>
    void linkWithin(std::span<const EdgePixels> parts, int first, int end);
    void flood(const cv::Point& edge, int first, int end);
    void sortByRow();

    cv::Size size_;
    std::vector<Cell> cells_;
    bool isClean_ = false;
    std::vector<cv::Point> open_, edges_, sorted_;
    std::vector<std::size_t> rowEnds_;
};

}  // namespace kestrune
