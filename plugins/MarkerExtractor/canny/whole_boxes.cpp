// SPDX-License-Identifier: Apache-2.0
#include "canny/whole_boxes.h"

#include <algorithm>
#include <array>
#include <type_traits>

#include "ellipsedetection/vector_lanes.h"

namespace kestrune {

namespace {

/// By which 8-bit grey levels are raised.
constexpr std::uint32_t kRaised = 256;

/// One row: the sums of the box's columns, and where the means go.
template <typename Pixel, int kWidth>
struct BoxRow {
    static constexpr bool kIsGrey = std::is_same_v<Pixel, uchar>;
    static constexpr int kReach = kWidth / 2;
    static constexpr std::uint32_t kCount = kWidth * kWidth;
    static constexpr std::uint32_t kFactor = kIsGrey ? kRaised : 1;
    static constexpr int kLanes = 8;

    std::array<const Pixel*, static_cast<std::size_t>(kWidth)> rows;
    std::uint32_t* sums;  ///< of the columns, `kReach` more at either end
    std::uint16_t* dst;
    int cols;

    void sumColumns() const {
        std::uint32_t* const inner = sums + kReach;
        int x = 0;
#if KESTRUNE_EXACT_LANES
        for (; x + kLanes <= cols; x += kLanes) {
            cv::v_uint32x4 low, high;
            if constexpr (kIsGrey) {
                cv::v_uint16x8 sum = cv::v_load_expand(rows[0] + x);
                for (std::size_t k = 1; k < kWidth; ++k) sum = sum + cv::v_load_expand(rows[k] + x);
                cv::v_expand(sum, low, high);
            } else {
                cv::v_expand(cv::v_load(rows[0] + x), low, high);
                for (std::size_t k = 1; k < kWidth; ++k) {
                    cv::v_uint32x4 nextLow, nextHigh;
                    cv::v_expand(cv::v_load(rows[k] + x), nextLow, nextHigh);
                    low = low + nextLow;
                    high = high + nextHigh;
                }
            }
            cv::v_store(inner + x, low);
            cv::v_store(inner + x + kLanes / 2, high);
        }
#endif
        for (; x < cols; ++x) {
            std::uint32_t sum = 0;
            for (const Pixel* row : rows) sum += row[x];
            inner[x] = sum;
        }
        std::fill_n(sums, kReach, inner[0]);
        std::fill_n(inner + cols, kReach, inner[cols - 1]);
    }

    void writeMeans() const {
        int x = 0;
#if KESTRUNE_EXACT_LANES
        const cv::v_float32x4 share = cv::v_setall_f32(static_cast<float>(kFactor) * (1.0f / kCount));
        const auto meansAt = [&share](const std::uint32_t* first) {
            cv::v_uint32x4 sum = cv::v_load(first);
            for (int k = 1; k < kWidth; ++k) sum = sum + cv::v_load(first + k);
            return cv::v_round(cv::v_cvt_f32(cv::v_reinterpret_as_s32(sum)) * share);
        };
        for (; x + kLanes <= cols; x += kLanes) {
            cv::v_store(dst + x, cv::v_pack_u(meansAt(sums + x), meansAt(sums + x + kLanes / 2)));
        }
#endif
        for (; x < cols; ++x) {
            std::uint32_t sum = 0;
            for (int k = 0; k < kWidth; ++k) sum += sums[x + k];
            dst[x] = static_cast<std::uint16_t>((sum * kFactor + kCount / 2) / kCount);  // of an odd number: no ties
        }
    }
};

template <typename Pixel, int kWidth>
void filter(const cv::Mat& src, cv::Mat& dst, std::uint32_t* sums) {
    BoxRow<Pixel, kWidth> row;
    row.sums = sums;
    row.cols = src.cols;
    for (int y = 0; y < src.rows; ++y) {
        for (int k = 0; k < kWidth; ++k) {
            row.rows[static_cast<std::size_t>(k)] = src.ptr<Pixel>(std::clamp(y + k - row.kReach, 0, src.rows - 1));
        }
        row.dst = dst.ptr<std::uint16_t>(y);
        row.sumColumns();
        row.writeMeans();
    }
}

template <typename Pixel>
void filterOf(int width, const cv::Mat& src, cv::Mat& dst, std::uint32_t* sums) {
    if (width == 3) return filter<Pixel, 3>(src, dst, sums);
    if (width == 5) return filter<Pixel, 5>(src, dst, sums);
    filter<Pixel, kWidestWholeBox>(src, dst, sums);
}

}  // namespace

void boxOfWhole(const cv::Mat& src, cv::Mat& dst, int width, std::vector<std::uint32_t>& sums) {
    const auto needed = static_cast<std::size_t>(src.cols) + static_cast<std::size_t>(kWidestWholeBox);
    if (sums.size() < needed) sums.resize(needed);
    src.depth() == CV_8U ? filterOf<uchar>(width, src, dst, sums.data())
                         : filterOf<std::uint16_t>(width, src, dst, sums.data());
}

}  // namespace kestrune
