// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <opencv2/core.hpp>
#include <vector>

namespace kestrune {

/// Pixels of a line, sorted by rows and then by columns in time by their number.
class PixelSet {
  public:
    /// Takes distinct pixels from a list in any order.
    ///
    /// @param points  not empty; their rows span no more than an image has.
    void assign(const std::vector<cv::Point>& points);

    std::size_t size() const { return columns_.size(); }

    /// By rows and then by columns.
    std::vector<cv::Point> pixels() const;

    /// Area of the convex hull, the bits of `cv::convexHull` and `cv::contourArea`: whole numbers until it is halved.
    double hullArea();

  private:
    /// Twice the area between the line x = 0 and the hull's left or right side.
    template <bool kIsLeft>
    std::int64_t twiceAreaBeside();

    int top_ = 0;
    std::vector<int> ends_;     ///< of each row's columns
    std::vector<int> columns_;  ///< of all rows
    std::vector<cv::Point> chain_;
};

}  // namespace kestrune
