// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <opencv2/core.hpp>
#include <vector>

namespace kestrune {

// Least share of the inner in the outer area, where the outer contour is outermost, and where it lies within another
// one.
constexpr float kLeastShareOutermost = 0.5f;
constexpr float kLeastShareNested = 0.25f;

/// A hole's hull may be a little larger than its outline; by more, and it does not belong to it.
constexpr float kLargestShare = 1.05f;

/// Signed area of each contour: of itself if it has holes, of its convex hull if not, since the inner side of a rim may
/// be jagged; 0 for fewer than three points, and for one that is alone, of which nobody asks.
///
/// @param hierarchy  next, previous, first child and parent of each, as `cv::findContours` gives them.
std::vector<double> signedAreas(const std::vector<std::vector<cv::Point>>& contours,
                                const std::vector<cv::Vec4i>& hierarchy);

/// How a contour lies in the tree: the share of the inner in the outer area, and its bounds.
struct Nesting {
    bool isOpen;  ///< an open line has no child, and no parent of its own
    float share, least, largest;

    bool isRim() const { return !isOpen && !(least > share || share > largest); }
};

/// A rim is the outer or the inner side of a closed line: a contour whose children have a good share of its area, or a
/// child without children that has a good share of its parent's.
Nesting nestingOf(int index, const std::vector<double>& areas, const std::vector<cv::Vec4i>& hierarchy);

}  // namespace kestrune
