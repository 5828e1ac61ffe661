// SPDX-License-Identifier: Apache-2.0
//
// The rules of `gradient.h`, one pixel at a time: what the vector code must give to the last bit, and what runs where
// there are no vectors, or none with the square roots and roundings of IEEE 754.
#pragma once

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <limits>
#include <opencv2/core.hpp>
#include <vector>

#include "ellipsedetection/gradient.h"

namespace kestrune::plain {

constexpr int kGroup = 8;   ///< columns that are taken together
constexpr int kBins = 256;  ///< of the histogram of magnitudes

/// A gradient without a component above this has no direction. Differences of `blur16U` come in halves, so that it
/// passes all but 0.
constexpr float kLeastComponent = 0.0652799978852272f;

/// Column behind the last whole group, where groups start at `border` and end before `cols - border`.
inline int groupedEnd(int cols, int border) {
    const int inner = cols - 2 * border;
    return border + (inner >= kGroup ? inner / kGroup * kGroup : 0);
}

struct Range {
    float min = std::numeric_limits<float>::max();
    float max = -std::numeric_limits<float>::max();
    void take(float value) {
        min = std::min(min, value);
        max = std::max(max, value);
    }
};

/// Magnitude and components.
struct GradientImages {
    cv::Mat& grad;
    cv::Mat& dx;
    cv::Mat& dy;
};

/// Writes gradient and magnitude of columns `from` to `to` of row `y`.
inline void gradientOfColumns(const cv::Mat& blur16U, const GradientImages& images, int y, int from, int to,
                              int grouped, Range& range) {
    const auto* const above = blur16U.ptr<std::uint16_t>(y - 1);
    const auto* const row = blur16U.ptr<std::uint16_t>(y);
    const auto* const below = blur16U.ptr<std::uint16_t>(y + 1);
    for (int x = from; x < to; ++x) {
        const int stepX = row[x + 1] - row[x - 1];
        const int stepY = below[x] - above[x];
        const int halfX = stepX / 2;  // towards zero
        const int halfY = stepY / 2;
        const float gx = x < grouped ? static_cast<float>(stepX) * 0.5f : static_cast<float>(halfX);
        const float gy = x < grouped ? static_cast<float>(stepY) * 0.5f : static_cast<float>(halfY);
        const float magnitude = std::sqrt(gx * gx + gy * gy);
        images.dx.at<float>(y, x) = gx;
        images.dy.at<float>(y, x) = gy;
        images.grad.at<float>(y, x) = magnitude;
        range.take(magnitude);
    }
}

/// Bin of a magnitude; `scale` is bins per unit.
inline int binOf(float magnitude, float min, float scale, bool isGrouped) {
    const float place = (magnitude - min) * scale;
    const float inside = place > 0.0f ? std::min(place, static_cast<float>(kBins - 1)) : 0.0f;  // NaN: 0
    return isGrouped ? static_cast<int>(std::nearbyint(inside)) : static_cast<int>(inside);
}

/// What the pixels of one row are judged by.
struct EdgeRow {
    const float* grad;
    const float* dx;
    const float* dy;
    uchar* mask;
    std::ptrdiff_t stride;  ///< of `grad`
    int start;              ///< linear index of the row's first pixel
    float low, high, nmsFactor;
    std::vector<int>&strong, &weak;

    /// Whether the magnitude at column `x` exceeds those on both sides along the gradient.
    bool isMaximum(int x) const {
        const float ax = std::abs(dx[x]);
        const float ay = std::abs(dy[x]);
        const bool isSteep = ax <= ay;
        const bool signsDiffer = (dx[x] >= 0) != (dy[x] >= 0);
        const float weight = isSteep ? ax / ay : ay / ax;
        const std::ptrdiff_t axial = isSteep ? stride : 1;
        const std::ptrdiff_t diagonal = signsDiffer ? (isSteep ? stride - 1 : 1 - stride) : stride + 1;
        const float* const g = grad + x;
        const float ahead = (weight * g[axial] + (1.0f - weight) * g[diagonal]) * nmsFactor;
        const float behind = (weight * g[-axial] + (1.0f - weight) * g[-diagonal]) * nmsFactor;
        return *g > ahead && *g > behind;
    }

    bool hasDirection(int x) const { return std::abs(dx[x]) > kLeastComponent || std::abs(dy[x]) > kLeastComponent; }

    void mark(int x, bool isStrong) const {
        mask[x] = isStrong ? kStrongPixel : kWeakPixel;
        (isStrong ? strong : weak).push_back(start + x);
    }

    void judgeColumns(int from, int to, int grouped) const {
        for (int x = from; x < to; ++x) {
            if (x < grouped ? !(grad[x] > low) : low > grad[x]) continue;
            if (hasDirection(x) && isMaximum(x)) mark(x, grad[x] > high);
        }
    }
};

inline void calc_gradient(const cv::Mat& blur16U, cv::Mat& grad, cv::Mat& dx, cv::Mat& dy, float& min, float& max) {
    for (cv::Mat* image : {&grad, &dx, &dy}) image->create(blur16U.size(), CV_32FC1);
    Range range;
    for (int y = 1; y < blur16U.rows - 1; ++y) {
        gradientOfColumns(blur16U, {grad, dx, dy}, y, 1, blur16U.cols - 1, groupedEnd(blur16U.cols, 1), range);
    }
    min = range.min;
    max = range.max;
}

inline std::array<int, kBins> histogram(const cv::Mat& grad, float min, float scale) {
    std::array<int, kBins> counts{};
    for (int y = 1; y < grad.rows - 1; ++y) {
        for (int x = 1; x < grad.cols - 1; ++x) {
            const bool isGrouped = x < groupedEnd(grad.cols, 1);
            ++counts[static_cast<std::size_t>(binOf(grad.at<float>(y, x), min, scale, isGrouped))];
        }
    }
    return counts;
}

// NOLINTNEXTLINE(readability-function-size): the list of the operation that it states
inline void find_edge_mask_nms(const cv::Mat& grad, const cv::Mat& dx, const cv::Mat& dy, cv::Mat& mask,
                               std::vector<int>& strong, std::vector<int>& weak, float low, float high,
                               float nmsFactor) {
    const auto stride = static_cast<std::ptrdiff_t>(grad.step1());
    for (int y = 2; y < grad.rows - 2; ++y) {
        const EdgeRow row = {grad.ptr<float>(y),
                             dx.ptr<float>(y),
                             dy.ptr<float>(y),
                             mask.ptr<uchar>(y),
                             stride,
                             y * grad.cols,
                             low,
                             high,
                             nmsFactor,
                             strong,
                             weak};
        row.judgeColumns(2, grad.cols - 2, groupedEnd(grad.cols, 2));
    }
}

}  // namespace kestrune::plain
