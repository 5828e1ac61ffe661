// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <opencv2/core.hpp>
#include <vector>

#include "canny/fast_gaussian.h"
#include "ellipsedetection/ellipse_candidates.h"
#include "ellipsedetection/thinning.h"
#include "ellipsedetection/window_edges.h"

namespace kestrune {

/// One window after the other in storage of its own, so that windows that overlap do not meet.
class PrivateWindow {
  public:
    /// The edges of a window as `thinEdges` finds them.
    ///
    /// @param image  `CV_8UC1`, the whole of it.
    /// @param place  of the window in the image.
    /// @return       box of the window with all edges and one more pixel around them; empty for none.
    cv::Rect findEdges(const cv::Mat& image, const cv::Rect& place, const RimSettings& settings);

    /// Takes the gradient that a later window has in common with this one: a step in the columns that are left over
    /// beside groups is cut off to a whole number, and which columns these are depends on the window.
    ///
    /// @param other  place of the later window in the image.
    void takeGradientOf(const cv::Rect& other);

    /// Of the last window; valid until the next.
    EdgeWindow& images() { return images_; }

  private:
    cv::Rect place_;
    EdgeWindow images_;
    BoxScratch smoothing_;
    std::vector<float> grad_, dx_, dy_;
    std::vector<uchar> mask_;
    std::vector<int> strong_, weak_;
    ThinningLists thinning_;
};

}  // namespace kestrune
