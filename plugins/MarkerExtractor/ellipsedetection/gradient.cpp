// SPDX-License-Identifier: Apache-2.0
#include "ellipsedetection/gradient.h"

#include <bit>

#include "ellipsedetection/gradient_plain.h"
#include "ellipsedetection/vector_lanes.h"
#include "logging/report_sites.h"

namespace kestrune {

namespace {

/// Keeps the division finite where all magnitudes are the same; no magnitude of a 16-bit image is so small.
constexpr float kLeastRange = 1e-6f;

#if KESTRUNE_EXACT_LANES
/// Difference of eight 16-bit pixels as floats; exact.
struct Difference {
    cv::v_float32x4 low, high;
    Difference(const std::uint16_t* plus, const std::uint16_t* minus) {
        cv::v_uint32x4 plusLow, plusHigh, minusLow, minusHigh;
        cv::v_expand(cv::v_load(plus), plusLow, plusHigh);
        cv::v_expand(cv::v_load(minus), minusLow, minusHigh);
        const cv::v_float32x4 half = cv::v_setall_f32(0.5f);
        low = cv::v_cvt_f32(cv::v_reinterpret_as_s32(plusLow) - cv::v_reinterpret_as_s32(minusLow)) * half;
        high = cv::v_cvt_f32(cv::v_reinterpret_as_s32(plusHigh) - cv::v_reinterpret_as_s32(minusHigh)) * half;
    }
};

/// Range of the magnitudes of all grouped columns, lane by lane.
class LaneRange {
  public:
    void take(const cv::v_float32x4& value) {
        min_ = cv::v_min(min_, value);
        max_ = cv::v_max(max_, value);
    }
    void addTo(plain::Range& range) const {
        range.min = std::min(range.min, cv::v_reduce_min(min_));
        range.max = std::max(range.max, cv::v_reduce_max(max_));
    }

  private:
    cv::v_float32x4 min_ = cv::v_setall_f32(std::numeric_limits<float>::max());
    cv::v_float32x4 max_ = cv::v_setall_f32(-std::numeric_limits<float>::max());
};

void gradientOfGroups(const cv::Mat& blur16U, const plain::GradientImages& images, int y, int grouped,
                      LaneRange& range) {
    const auto* const above = blur16U.ptr<std::uint16_t>(y - 1);
    const auto* const row = blur16U.ptr<std::uint16_t>(y);
    const auto* const below = blur16U.ptr<std::uint16_t>(y + 1);
    auto* const gradRow = images.grad.ptr<float>(y);
    auto* const dxRow = images.dx.ptr<float>(y);
    auto* const dyRow = images.dy.ptr<float>(y);
    for (int x = 1; x < grouped; x += plain::kGroup) {
        const Difference gx(row + x + 1, row + x - 1);
        const Difference gy(below + x, above + x);
        const cv::v_float32x4 low = cv::v_sqrt(gx.low * gx.low + gy.low * gy.low);
        const cv::v_float32x4 high = cv::v_sqrt(gx.high * gx.high + gy.high * gy.high);
        cv::v_store(dxRow + x, gx.low);
        cv::v_store(dxRow + x + 4, gx.high);
        cv::v_store(dyRow + x, gy.low);
        cv::v_store(dyRow + x + 4, gy.high);
        cv::v_store(gradRow + x, low);
        cv::v_store(gradRow + x + 4, high);
        range.take(low);
        range.take(high);
    }
}

void countGroups(const float* row, int grouped, float min, float scale, std::array<int, plain::kBins>& counts) {
    const cv::v_float32x4 least = cv::v_setall_f32(min);
    const cv::v_float32x4 factor = cv::v_setall_f32(scale);
    const cv::v_float32x4 zero = cv::v_setzero_f32();
    const cv::v_float32x4 last = cv::v_setall_f32(static_cast<float>(plain::kBins - 1));
    const auto binsAt = [&](const float* at) {
        return cv::v_round(cv::v_min(cv::v_max((cv::v_load(at) - least) * factor, zero), last));
    };
    alignas(16) std::array<int, plain::kGroup> bins;
    for (int x = 1; x < grouped; x += plain::kGroup) {
        cv::v_store_aligned(bins.data(), binsAt(row + x));
        cv::v_store_aligned(bins.data() + 4, binsAt(row + x + 4));
        for (const int bin : bins) ++counts[static_cast<std::size_t>(bin)];
    }
}
#endif

std::array<int, plain::kBins> histogram(const cv::Mat& grad, float min, float scale) {
#if KESTRUNE_EXACT_LANES
    std::array<int, plain::kBins> counts{};
    const int grouped = plain::groupedEnd(grad.cols, 1);
    for (int y = 1; y < grad.rows - 1; ++y) {
        const auto* const row = grad.ptr<float>(y);
        countGroups(row, grouped, min, scale, counts);
        for (int x = grouped; x < grad.cols - 1; ++x) {
            ++counts[static_cast<std::size_t>(plain::binOf(row[x], min, scale, false))];
        }
    }
    return counts;
#else
    return plain::histogram(grad, min, scale);
#endif
}

}  // namespace

void calc_gradient(const cv::Mat& blur16U, cv::Mat& img_grad, cv::Mat& img_dx, cv::Mat& img_dy, float& min,
                   float& max) {
    if (blur16U.type() != CV_16UC1) raiseAssertion(assertion_sites::kGradientSource);
#if KESTRUNE_EXACT_LANES
    for (cv::Mat* image : {&img_grad, &img_dx, &img_dy}) image->create(blur16U.size(), CV_32FC1);
    const int grouped = plain::groupedEnd(blur16U.cols, 1);
    const plain::GradientImages images = {img_grad, img_dx, img_dy};
    plain::Range range;
    LaneRange lanes;
    for (int y = 1; y < blur16U.rows - 1; ++y) {
        gradientOfGroups(blur16U, images, y, grouped, lanes);
        plain::gradientOfColumns(blur16U, images, y, grouped, blur16U.cols - 1, grouped, range);
    }
    lanes.addTo(range);
    min = range.min;
    max = range.max;
#else
    plain::calc_gradient(blur16U, img_grad, img_dx, img_dy, min, max);
#endif
}

float calc_stable_edge_threshold(const cv::Mat& img_grad, float min, float max, float percentile) {
    if (img_grad.type() != CV_32FC1) raiseAssertion(assertion_sites::kThresholdSource);
    const float scale = static_cast<float>(plain::kBins) / (max - min + kLeastRange);
    const std::array<int, plain::kBins> counts = histogram(img_grad, min, scale);
    const int total = (img_grad.cols - 2) * (img_grad.rows - 2);
    int sum = 0;
    for (int bin = 0; bin < plain::kBins; ++bin) {
        sum += counts[static_cast<std::size_t>(bin)];
        if (static_cast<float>(sum) / static_cast<float>(total) > percentile) {
            return static_cast<float>(bin) / scale + min;
        }
    }
    return std::bit_cast<float>(img_grad.rows);
}

}  // namespace kestrune
