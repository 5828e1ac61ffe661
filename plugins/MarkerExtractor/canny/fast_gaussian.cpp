// SPDX-License-Identifier: Apache-2.0
#include "canny/fast_gaussian.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <opencv2/imgproc.hpp>

#include "canny/whole_boxes.h"
#include "checks/settings_check.h"
#include "logging/report_sites.h"

namespace kestrune {

namespace {

constexpr int kPasses = 3;

/// 8-bit grey levels are raised by this, so that three roundings to whole numbers lose nothing of an edge's place.
constexpr double kGreyFactor = 256.0;

// OpenCV scales the sums of a box in groups of columns in single precision and the columns left over at the end of a
// row in double. Up to `kWidestWholeBox` both round to the same number. Wider boxes take their groups where the whole
// image has them, at multiples of a number that any vector of today divides.
constexpr int kColumnGroup = 64;

/// In single precision throughout, which decides at the very sizes where a pass changes its width.
std::array<int, kPasses> boxWidths(float sigma) {
    const float variance12 = 12.0f * sigma * sigma;
    int lower = static_cast<int>(std::floor(std::sqrt(variance12 / 3.0f + 1.0f)));
    if (lower % 2 == 0) --lower;
    const int upper = lower + 2;
    const auto wl = static_cast<float>(lower);
    const float passes = std::round((variance12 - 3.0f * wl * wl - 12.0f * wl - 9.0f) / (-4.0f * (wl + 1.0f)));
    std::array<int, kPasses> widths{};
    for (int i = 0; i < kPasses; ++i) {
        widths[static_cast<std::size_t>(i)] = static_cast<float>(i) < passes ? lower : upper;
    }
    return widths;
}

// OpenCV's filters look beyond the border of a window into the image that it belongs to, where working storage holds
// what another marker left behind; isolated, they do not.
constexpr int kBeyondWindow = cv::BORDER_REPLICATE | cv::BORDER_ISOLATED;

void boxPass(const cv::Mat& src, cv::Mat& dst, int width) {
    if (width == 1) {
        if (src.data != dst.data) src.copyTo(dst);
        return;
    }
    cv::boxFilter(src, dst, CV_16U, cv::Size(width, width), cv::Point(-1, -1), true, kBeyondWindow);
}

void smooth(const cv::Mat& source, cv::Mat& dst, float sigma) {
    const std::array<int, kPasses> widths = boxWidths(sigma);
    if (source.type() == CV_16UC1) {
        boxPass(source, dst, widths[0]);
    } else {
        source.convertTo(dst, CV_16U, kGreyFactor, 0.0);
        boxPass(dst, dst, widths[0]);
    }
    for (std::size_t i = 1; i < widths.size(); ++i) boxPass(dst, dst, widths[i]);
}

/// The window with all that its pixels are made of, cut to the image.
cv::Rect grownWindow(const cv::Rect& window, const cv::Size& size, float sigma) {
    const std::array<int, kPasses> widths = boxWidths(sigma);
    const int reach = (widths[0] + widths[1] + widths[2] - kPasses) / 2;
    const int group = widths[kPasses - 1] > kWidestWholeBox ? kColumnGroup : 1;
    const int left = std::max(window.x - reach, 0) / group * group;
    const int right = (window.br().x + reach + group - 1) / group * group;
    const int top = std::max(window.y - reach, 0);
    return cv::Rect(left, top, right - left, window.br().y + reach - top) & cv::Rect({}, size);
}

}  // namespace

void fastGaussianApprox(const cv::Mat& src, cv::Mat& dst, float sigma) {
    if (src.type() != CV_8UC1 && src.type() != CV_16UC1) raiseAssertion(assertion_sites::kGaussianSource);
    requireBlurSigma(std::abs(sigma));
    const cv::Mat source = src;  // keeps its pixels where `dst` is the same header and is made anew
    dst.create(source.size(), CV_16UC1);
    smooth(source, dst, sigma);
}

void fastGaussianOfWindow(const cv::Mat& image, const cv::Rect& window, cv::Mat& dst, float sigma,
                          std::vector<std::uint16_t>& storage) {
    const cv::Rect grown = grownWindow(window, image.size(), sigma);
    if (storage.size() < static_cast<std::size_t>(grown.area())) storage.resize(static_cast<std::size_t>(grown.area()));
    cv::Mat smoothed(grown.size(), CV_16UC1, storage.data());
    smooth(image(grown), smoothed, sigma);
    smoothed(window - grown.tl()).copyTo(dst);
}

cv::Mat smoothedWindow(const cv::Mat& image, const cv::Rect& window, float sigma, BoxScratch& scratch) {
    const std::array<int, kPasses> widths = boxWidths(sigma);
    const cv::Rect grown = grownWindow(window, image.size(), sigma);
    const auto count = static_cast<std::size_t>(grown.area());
    for (std::vector<std::uint16_t>& pixels : scratch.pixels) {
        if (pixels.size() < count) pixels.resize(count);
    }
    std::array<cv::Mat, 2> buffers = {cv::Mat(grown.size(), CV_16UC1, scratch.pixels[0].data()),
                                      cv::Mat(grown.size(), CV_16UC1, scratch.pixels[1].data())};
    cv::Mat smoothed = image(grown);
    if (widths.back() == 1 || widths.back() > kWidestWholeBox) {
        smooth(smoothed, buffers[0], sigma);
        smoothed = buffers[0];
    } else {
        std::size_t next = 0;
        for (const int width : widths) {
            if (width == 1) continue;
            boxOfWhole(smoothed, buffers[next], width, scratch.sums);
            smoothed = buffers[next];
            next = 1 - next;
        }
    }
    return smoothed(window - grown.tl());
}

}  // namespace kestrune
