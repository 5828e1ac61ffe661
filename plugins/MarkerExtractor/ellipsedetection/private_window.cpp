// SPDX-License-Identifier: Apache-2.0
#include "ellipsedetection/private_window.h"

#include <algorithm>
#include <opencv2/imgproc.hpp>

#include "ellipsedetection/gradient.h"
#include "ellipsedetection/gradient_plain.h"

namespace kestrune {

namespace {

/// An image over storage that only grows.
template <typename T>
cv::Mat imageOver(std::vector<T>& storage, const cv::Size& size, int type) {
    const auto count = static_cast<std::size_t>(size.area());
    if (storage.size() < count) storage.resize(count);
    return {size, type, storage.data()};
}

}  // namespace

cv::Rect PrivateWindow::findEdges(const cv::Mat& image, const cv::Rect& place, const RimSettings& settings) {
    place_ = place;
    images_ = {smoothedWindow(image, place, settings.sigma, smoothing_), imageOver(grad_, place.size(), CV_32FC1),
               imageOver(dx_, place.size(), CV_32FC1), imageOver(dy_, place.size(), CV_32FC1),
               imageOver(mask_, place.size(), CV_8UC1)};
    std::fill_n(mask_.begin(), place.area(), uchar{0});
    float min = 0, max = 0;
    calc_gradient(images_.blur16U, images_.grad, images_.dx, images_.dy, min, max);
    const float threshold = calc_stable_edge_threshold(images_.grad, min, max, settings.edgePercentile);
    find_edge_mask_nms(images_.grad, images_.dx, images_.dy, images_.mask, strong_, weak_, threshold * 0.5f, threshold,
                       settings.nmsFactor);
    linkEdges(images_.mask, strong_, weak_);
    const cv::Rect edges = cv::boundingRect(images_.mask);
    if (edges.empty()) return {};
    thinPixels(images_.mask, strong_, thinning_);
    return {edges.x - 1, edges.y - 1, edges.width + 2, edges.height + 2};
}

void PrivateWindow::takeGradientOf(const cv::Rect& other) {
    const auto innerOf = [](const cv::Rect& rect) {
        return cv::Rect(rect.x + 1, rect.y + 1, rect.width - 2, rect.height - 2);
    };
    if (other.width <= 2 || other.height <= 2 || place_.width <= 2 || place_.height <= 2) return;
    const cv::Rect shared = (innerOf(other) & innerOf(place_)) - place_.tl();
    const int grouped = other.x - place_.x + plain::groupedEnd(other.width, 1);
    plain::Range range;
    for (int y = shared.y; y < shared.y + shared.height; ++y) {
        plain::gradientOfColumns(images_.blur16U, {images_.grad, images_.dx, images_.dy}, y, shared.x,
                                 shared.x + shared.width, grouped, range);
    }
}

}  // namespace kestrune
