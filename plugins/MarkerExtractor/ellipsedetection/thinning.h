// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <array>
#include <opencv2/core.hpp>
#include <vector>

namespace kestrune {

/// Lists whose storage goes from mask to mask.
struct ThinningLists {
    std::vector<int> judged;
    std::array<std::vector<int>, 2> gone;
};

/// Thins edges to one pixel after Zhang and Suen, as `cv::ximgproc::thinning` does, in time by the pixels of the edges
/// and not of the mask: after one look at each pixel only those are looked at again whose neighbours have changed.
///
/// @param mask   `CV_8UC1` without gaps between the rows: `kStrongPixel` on edges and 0 elsewhere, as in its outer
/// ring.
/// @param edges  index y * cols + x of each pixel of an edge, once.
void thinPixels(cv::Mat& mask, const std::vector<int>& edges, ThinningLists& lists);

}  // namespace kestrune
