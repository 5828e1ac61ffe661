// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <array>
#include <opencv2/core.hpp>
#include <vector>

#include "canny/edge_map.h"

namespace kestrune {

/// The contours of a map of edges with their tree, as `cv::findContours` gives them with `cv::RETR_TREE` and
/// `cv::CHAIN_APPROX_NONE`: same contours, same points, same tree and same order. It looks at edges only, not at every
/// pixel of an image. The method is that of S. Suzuki and K. Abe, "Topological structural analysis of digitized binary
/// images by border following" (1985), with labels of seven bits that are used again: which contour a label stands for
/// is found out by following those that it may be.
class ContourTracer {
  public:
    struct Contour {
        std::size_t first;  ///< of its points
        int length;
        int parent;  ///< index, or -1
        bool isHole;
        cv::Rect box;
        int sameLabel;    ///< the last one before with that label, or -1
        int firstChild;   ///< the last one that was found
        int nextSibling;  ///< the one that was found before
    };

    /// @param map  settled; its cells hold labels afterwards.
    void trace(EdgeMap& map);

    /// In the order in which they were found.
    const std::vector<Contour>& contours() const { return contours_; }
    const cv::Point* pointsOf(const Contour& contour) const { return points_.data() + contour.first; }

    /// Indices of the contours in the order of `cv::findContours`: each one before what is within it, and of those
    /// beside each other the last one that was found first.
    const std::vector<int>& inTreeOrder() const { return order_; }

  private:
    using Cell = EdgeMap::Cell;

    void traceRow(EdgeMap& map, const cv::Point* pixel, const cv::Point* end);
    int parentOf(EdgeMap& map, const cv::Point& labelled, bool isHole) const;
    void follow(EdgeMap& map, const cv::Point& start, bool isHole, int parent);
    void putInOrder();

    std::vector<cv::Point> points_;
    std::vector<Contour> contours_;
    std::vector<int> order_;
    std::array<int, 128> latest_{};  ///< contour of each label
    int label_ = 0;
    int firstRoot_ = -1;
};

}  // namespace kestrune
