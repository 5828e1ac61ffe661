// SPDX-License-Identifier: Apache-2.0
#include "ellipsedetection/window_edges.h"

#include <array>
#include <opencv2/imgproc.hpp>

#include "canny/fast_gaussian.h"
#include "ellipsedetection/gradient.h"
#include "ellipsedetection/thinning.h"

namespace kestrune {

void linkEdges(cv::Mat& mask, std::vector<int>& strong, const std::vector<int>& weak) {
    const int cols = mask.cols;
    const auto stride = static_cast<int>(mask.step1());
    const auto stateOf = [&mask, cols, stride](int index) {
        return mask.data + (stride == cols ? index : index / cols * stride + index % cols);  // divisions take long
    };
    const auto ringOf = [](int width) {
        return std::array<int, 8>{-width - 1, -width, -width + 1, -1, 1, width - 1, width, width + 1};
    };
    const std::array<int, 8> places = ringOf(stride);
    const std::array<int, 8> indices = ringOf(cols);
    for (std::size_t next = 0; next < strong.size(); ++next) {
        const int index = strong[next];
        uchar* const centre = stateOf(index);
        for (std::size_t k = 0; k < places.size(); ++k) {
            uchar& state = centre[places[k]];
            if (state != kWeakPixel) continue;
            state = kStrongPixel;
            strong.push_back(index + indices[k]);
        }
    }
    for (const int index : weak) {
        uchar& state = *stateOf(index);
        if (state == kWeakPixel) state = 0;
    }
}

cv::Rect thinEdges(const cv::Mat& image, const cv::Rect& place, EdgeWindow& window, float sigma, float percentile,
                   float nmsFactor, WindowScratch& scratch) {
    window.mask.setTo(0);
    fastGaussianOfWindow(image, place, window.blur16U, sigma, scratch.smoothing);
    float min = 0, max = 0;
    calc_gradient(window.blur16U, window.grad, window.dx, window.dy, min, max);
    const float threshold = calc_stable_edge_threshold(window.grad, min, max, percentile);
    find_edge_mask_nms(window.grad, window.dx, window.dy, window.mask, scratch.strong, scratch.weak, threshold * 0.5f,
                       threshold, nmsFactor);
    linkEdges(window.mask, scratch.strong, scratch.weak);

    const cv::Rect edges = cv::boundingRect(window.mask);
    if (edges.empty()) return {};
    cv::Mat thin = window.mask.clone();  // without gaps between the rows
    thinPixels(thin, scratch.strong, scratch.thinning);
    thin.copyTo(window.mask);
    return {edges.x - 1, edges.y - 1, edges.width + 2, edges.height + 2};
}

}  // namespace kestrune
