// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <opencv2/core.hpp>
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

    /// Makes edges, which hold 1, of the seeds and of all candidates that are linked to one of them by neighbours
    /// within the columns `first` .. `end` - 1.
    void link(const std::vector<cv::Point>& seeds, int first, int end);

    /// Takes the other candidates off the map.
    ///
    /// @param found  all that was marked, in parts; pixels of a row are in order from part to part.
    void settle(const std::vector<EdgePixels>& found);

    /// Clears the map. Without it the next `begin` does, at the price of an image.
    void end();

    /// Edges in the order of rows, then columns, after `settle`.
    const std::vector<cv::Point>& edges() const { return edges_; }

    /// The cell of a pixel, with that of the next row `step()` behind.
    Cell* at(const cv::Point& pixel) { return cells_.data() + (pixel.y + 1) * step() + pixel.x + 1; }
    std::ptrdiff_t step() const { return size_.width + 2; }
    const cv::Size& size() const { return size_; }

  private:
    cv::Size size_;
    std::vector<Cell> cells_;
    bool isClean_ = false;
    std::vector<cv::Point> open_, edges_;
    std::vector<std::size_t> rowEnds_;
};

}  // namespace kestrune
