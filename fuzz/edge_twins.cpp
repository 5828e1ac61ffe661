// SPDX-License-Identifier: Apache-2.0
#include "edge_twins.h"

#include <opencv2/ximgproc.hpp>

#include "canny/fast_gaussian.h"
#include "ellipsedetection/gradient_plain.h"
#include "ellipsedetection/thinning.h"
#include "ellipsedetection/window_edges.h"
#include "promises.h"

namespace kestrune::fuzz {

namespace {

constexpr double kGreyFactor = 256;  ///< by which smoothing raises 8 bits to 16
constexpr float kLeastRange = 1e-6f;

struct Edges {
    cv::Mat grad, dx, dy, mask;
    float min = 0, max = 0;
    std::vector<int> strong, weak;

    explicit Edges(cv::Size size) : mask(size, CV_8UC1, cv::Scalar(0)) {
        for (cv::Mat* image : {&grad, &dx, &dy}) *image = cv::Mat(size, CV_32FC1, cv::Scalar(0));
    }

    Record record() const {
        Record result;
        result.matrix("gradient", grad);
        result.matrix("dx", dx);
        result.matrix("dy", dy);
        result.matrix("mask", mask);
        result.numbers("range", min, max);
        for (const std::vector<int>* list : {&strong, &weak}) {
            result.numbers("lists", list->size());
            for (const int index : *list) result.numbers("lists", index);
        }
        return result;
    }
};

Record recordOf(const cv::Mat& image) {
    Record record;
    record.matrix("image", image);
    return record;
}

/// The magnitude below which the share of the pixels lies, of which there is at least one.
float thresholdOf(const Edges& edges, float percentile) {
    const float scale = static_cast<float>(plain::kBins) / (edges.max - edges.min + kLeastRange);
    const auto counts = plain::histogram(edges.grad, edges.min, scale);
    const auto total = static_cast<float>((edges.grad.cols - 2) * (edges.grad.rows - 2));
    std::size_t bin = 0;
    int sum = counts[0];
    while (!(static_cast<float>(sum) / total > percentile)) sum += counts[++bin];
    return static_cast<float>(bin) / scale + edges.min;
}

/// A window of the smoothed image.
cv::Mat smoothed(const cv::Mat& grey, const cv::Rect& window, float sigma) {
    cv::Mat whole, raised, ofWindow;
    std::vector<std::uint16_t> storage(17, 0xA5A5);
    fastGaussianApprox(grey, whole, sigma);
    grey.convertTo(raised, CV_16U, kGreyFactor);
    fastGaussianApprox(raised, raised, -sigma);
    requireSame(recordOf(whole), recordOf(raised), "8 bits are smoothed like 16");
    fastGaussianOfWindow(grey, window, ofWindow, sigma, storage);
    requireSame(recordOf(whole(window)), recordOf(ofWindow), "a window is smoothed like the whole image");
    BoxScratch scratch;
    requireSame(recordOf(ofWindow), recordOf(smoothedWindow(grey, window, sigma, scratch)), "own boxes equal OpenCV's");
    return ofWindow;
}

}  // namespace

void checkEdgeTwins(const cv::Mat& grey, Input& input) {
    const cv::Point at(input.whole(0, grey.cols - 1), input.whole(0, grey.rows - 1));
    const cv::Rect window = cv::Rect(at, cv::Size(input.whole(1, 80), input.whole(1, 80))) & cv::Rect({}, grey.size());
    const float sigma = 0.25f * static_cast<float>(input.whole(0, 40));
    const auto percentile = 0.01f * static_cast<float>(input.whole(0, 99));
    const auto nmsFactor = 0.1f * static_cast<float>(input.whole(0, 13));
    const cv::Mat blur = smoothed(grey, window, sigma);
    Edges fast(blur.size()), slow(blur.size());
    calc_gradient(blur, fast.grad, fast.dx, fast.dy, fast.min, fast.max);
    plain::calc_gradient(blur, slow.grad, slow.dx, slow.dy, slow.min, slow.max);
    requireSame(fast.record(), slow.record(), "gradients by groups equal those by pixels");
    if (blur.rows < 3 || blur.cols < 3) return;
    const float low = calc_stable_edge_threshold(fast.grad, fast.min, fast.max, percentile);
    require(low == thresholdOf(slow, percentile), "histograms by groups equal those by pixels");
    find_edge_mask_nms(fast.grad, fast.dx, fast.dy, fast.mask, fast.strong, fast.weak, low, 2 * low, nmsFactor);
    plain::find_edge_mask_nms(slow.grad, slow.dx, slow.dy, slow.mask, slow.strong, slow.weak, low, 2 * low, nmsFactor);
    requireSame(fast.record(), slow.record(), "edges by groups equal those by pixels");
    linkEdges(fast.mask, fast.strong, fast.weak);
    cv::ximgproc::thinning(fast.mask, slow.mask, cv::ximgproc::THINNING_ZHANGSUEN);
    ThinningLists lists;
    thinPixels(fast.mask, fast.strong, lists);
    requireSame(recordOf(fast.mask), recordOf(slow.mask), "lists of pixels are thinned like masks");
}

}  // namespace kestrune::fuzz
