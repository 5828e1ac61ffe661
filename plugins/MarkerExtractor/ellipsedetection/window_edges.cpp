// SPDX-License-Identifier: Apache-2.0
#include "ellipsedetection/window_edges.h"

#include <array>
#include <opencv2/imgproc.hpp>
#include <opencv2/ximgproc.hpp>

#include "canny/fast_gaussian.h"
#include "ellipsedetection/gradient.h"

namespace kestrune {

namespace {

/// Weak pixels that hang together with a strong one become strong; the others are no edge.
///
/// @param mask  without gaps between the rows, so that an index is a place. No pixel of its outer two rows and columns
/// is
///              marked, so that no neighbour is beyond an end.
void linkEdges(cv::Mat& mask, std::vector<int>& strong, const std::vector<int>& weak) {
    const int cols = mask.cols;
    const std::array<int, 8> neighbours = {-cols - 1, -cols, -cols + 1, -1, 1, cols - 1, cols, cols + 1};
    uchar* const states = mask.data;
    while (!strong.empty()) {
        const int index = strong.back();
        strong.pop_back();
        for (const int step : neighbours) {
            uchar& state = states[index + step];
            if (state != kWeakEdge) continue;
            state = kStrongEdge;
            strong.push_back(index + step);
        }
    }
    for (const int index : weak) {
        if (states[index] == kWeakEdge) states[index] = 0;
    }
}

}  // namespace

cv::Rect thinEdges(const cv::Mat& source, EdgeWindow& window, float sigma, float percentile, float nmsFactor,
                   WindowScratch& scratch) {
    window.mask.setTo(0);
    scratch.marks.assign(source.total(), 0);
    cv::Mat marks(source.size(), CV_8UC1, scratch.marks.data());
    fastGaussianApprox(source, window.blur16U, sigma);
    float min = 0, max = 0;
    calc_gradient(window.blur16U, window.grad, window.dx, window.dy, min, max);
    const float threshold = calc_stable_edge_threshold(window.grad, min, max, percentile);
    find_edge_mask_nms(window.grad, window.dx, window.dy, marks, scratch.strong, scratch.weak, threshold * 0.5f,
                       threshold, nmsFactor);
    if (scratch.strong.empty()) return {};  // nothing for the weak ones to hang together with
    linkEdges(marks, scratch.strong, scratch.weak);

    // Thinning takes its time by the pixel, and nothing comes of pixels without an edge: the edges' box is thinned,
    // with the empty frame around it that makes its border like any other place.
    const cv::Rect edges = cv::boundingRect(marks);
    const cv::Rect box(edges.x - 1, edges.y - 1, edges.width + 2, edges.height + 2);
    cv::Mat thin;
    cv::ximgproc::thinning(marks(box), thin, cv::ximgproc::THINNING_ZHANGSUEN);
    thin.copyTo(window.mask(box));
    return box;
}

}  // namespace kestrune
