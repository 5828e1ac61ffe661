// SPDX-License-Identifier: Apache-2.0
#include "ellipsedetection/window_edges.h"

#include <array>
#include <opencv2/ximgproc.hpp>

#include "canny/fast_gaussian.h"
#include "ellipsedetection/gradient.h"
#include "ellipsedetection/gradient_plain.h"

namespace kestrune {

namespace {

const std::array<cv::Point, 8> kNeighbours = {cv::Point(-1, -1), {0, -1}, {1, -1}, {-1, 0}, {1, 0},
                                              {-1, 1},           {0, 1},  {1, 1}};

/// Weak pixels that hang together with a strong one become strong; the others are no edge. No pixel of the outer two
/// rows and columns is marked, so that no neighbour lies at a negative place.
void linkEdges(cv::Mat& mask, std::vector<int>& strong, const std::vector<int>& weak) {
    while (!strong.empty()) {
        const int index = strong.back();
        strong.pop_back();
        const cv::Point at(index % mask.cols, index / mask.cols);
        for (const cv::Point& step : kNeighbours) {
            const cv::Point next = at + step;
            if (next.x >= mask.cols || next.y >= mask.rows) continue;
            uchar& state = mask.at<uchar>(next);
            if (state != plain::kWeakEdge) continue;
            state = plain::kStrongEdge;
            strong.push_back(next.y * mask.cols + next.x);
        }
    }
    for (const int index : weak) {
        uchar& state = mask.at<uchar>(index / mask.cols, index % mask.cols);
        if (state == plain::kWeakEdge) state = 0;
    }
}

}  // namespace

bool thinEdges(const cv::Mat& source, EdgeWindow& window, float sigma, float percentile, float nmsFactor,
               WindowScratch& scratch) {
    window.mask.setTo(0);
    fastGaussianApprox(source, window.blur16U, sigma);
    float min = 0, max = 0;
    calc_gradient(window.blur16U, window.grad, window.dx, window.dy, min, max);
    const float threshold = calc_stable_edge_threshold(window.grad, min, max, percentile);
    find_edge_mask_nms(window.grad, window.dx, window.dy, window.mask, scratch.strong, scratch.weak, threshold * 0.5f,
                       threshold, nmsFactor);
    const bool hasEdges = !scratch.strong.empty();
    linkEdges(window.mask, scratch.strong, scratch.weak);
    if (!hasEdges) return false;  // the mask is empty, and stays so by thinning
    cv::ximgproc::thinning(window.mask, scratch.thin, cv::ximgproc::THINNING_ZHANGSUEN);
    scratch.thin.copyTo(window.mask);
    return true;
}

}  // namespace kestrune
