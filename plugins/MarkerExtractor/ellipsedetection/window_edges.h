// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <opencv2/core.hpp>
#include <vector>

#include "ellipsedetection/thinning.h"

namespace kestrune {

/// Windows of the full-size working images around one blob; the pixels belong to those.
struct EdgeWindow {
    cv::Mat blur16U, grad, dx, dy, mask;
};

/// Lists whose storage goes from window to window.
struct WindowScratch {
    explicit WindowScratch(std::vector<std::uint16_t>& smooth) : smoothing(smooth) {}
    std::vector<std::uint16_t>& smoothing;  ///< of `fastGaussianOfWindow`
    std::vector<int> strong, weak;
    ThinningLists thinning;
    std::vector<std::vector<cv::Point>> contours;
    std::vector<cv::Vec4i> hierarchy;
};

/// Weak pixels that hang together with a strong one become strong; the others are no edge.
///
/// @param mask    no pixel of its outer two rows and columns is marked, so that no neighbour is beyond an end.
/// @param strong  appended to: each weak one that became strong.
void linkEdges(cv::Mat& mask, std::vector<int>& strong, const std::vector<int>& weak);

/// Edges of a window, one pixel wide: smoothing, gradient, a threshold at `percentile` of the window's magnitudes with
/// hysteresis down to half of it, non-maximum suppression, and thinning after Zhang and Suen.
///
/// @param image   `CV_8UC1`, the whole of it: what lies around the window is smoothed into it.
/// @param place   of the window in the image.
/// @param window  results; `mask` is 255 on edges and 0 elsewhere.
/// @return        box of the window outside of which there is no edge, one pixel wider than need be; empty for none.
cv::Rect thinEdges(const cv::Mat& image, const cv::Rect& place, EdgeWindow& window, float sigma, float percentile,
                   float nmsFactor, WindowScratch& scratch);

}  // namespace kestrune
