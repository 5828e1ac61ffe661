// SPDX-License-Identifier: Apache-2.0
#include "canny/row_gaussian.h"

#include <algorithm>
#include <opencv2/imgproc.hpp>

#include "canny/wide_lanes.h"

namespace kestrune {

namespace {

constexpr int kOne = 256;  ///< sum of the taps
constexpr std::size_t kRadii = RowGaussian::kLargestRadius + 1;

using Taps = std::array<std::uint16_t, kRadii>;

/// The sum down a column. At most 255 * 256, so that 16 bits hold it.
template <std::size_t... kTap>
KESTRUNE_BOTH std::uint16_t down(std::index_sequence<kTap...>, const Taps& taps, const uchar* const* centre, int x) {
    return static_cast<std::uint16_t>(
        taps[0] * centre[0][x] +
        (0 + ... + (taps[kTap + 1] * (centre[-1 - static_cast<int>(kTap)][x] + centre[kTap + 1][x]))));
}

/// The sums down the columns, and their high bytes.
///
/// @param centre  the middle one of 2 radius + 1 rows.
template <std::size_t kRadius>
KESTRUNE_BOTH void sumDown(const uchar* const* centre, const Taps& tapList, int count, std::uint16_t* __restrict sums,
                           std::uint16_t* __restrict highBytes) {
    constexpr std::make_index_sequence<kRadius> kTaps;
    const Taps taps = tapList;
    std::array<const uchar*, 2 * kRadius + 1> rows;
    std::copy_n(centre - kRadius, rows.size(), rows.begin());
    const uchar* const* const middle = rows.data() + kRadius;
    const int grouped = count < kLanes ? 0 : count;
    for (int first = 0; first < grouped;
         first = first + kLanes == count ? count : std::min(first + kLanes, count - kLanes)) {
        for (int x = first; x < first + kLanes; ++x) {  // the last group may do some again
            sums[x] = down(kTaps, taps, middle, x);
            highBytes[x] = static_cast<std::uint16_t>(sums[x] >> 8);
        }
    }
    for (int x = grouped; x < count; ++x) {
        sums[x] = down(kTaps, taps, middle, x);
        highBytes[x] = static_cast<std::uint16_t>(sums[x] >> 8);
    }
}

/// The sum along a row, of which 16 bits are kept.
template <std::size_t... kTap>
KESTRUNE_BOTH std::uint16_t along(std::index_sequence<kTap...>, const Taps& taps, const std::uint16_t* at) {
    return static_cast<std::uint16_t>(taps[0] * at[0] +
                                      (0 + ... + (taps[kTap + 1] * (at[-1 - static_cast<int>(kTap)] + at[kTap + 1]))));
}

/// The sums along the row, rounded to 8 bits. A sum has 24 bits: its high part is that of the high bytes, and its low
/// 16 bits are what is left when sums of 16 bits wrap.
///
/// @param sums   with `kRadius` more on both sides, as `highBytes`.
/// @param count  a multiple of the lanes.
template <std::size_t kRadius>
KESTRUNE_BOTH void sumAcross(const std::uint16_t* sums, const std::uint16_t* highBytes, const Taps& tapList, int count,
                             uchar* __restrict row) {
    constexpr std::make_index_sequence<kRadius> kTaps;
    const Taps taps = tapList;
    for (int first = 0; first < count; first += kLanes) {
        for (int x = first; x < first + kLanes; ++x) {
            const std::uint16_t high = along(kTaps, taps, highBytes + x);
            const auto low = static_cast<std::uint16_t>(along(kTaps, taps, sums + x) - (high << 8));
            row[x] = static_cast<uchar>(static_cast<std::uint16_t>(high + (low >> 8) + kOne / 2) >> 8);
        }
    }
}

template <std::size_t kRadius>
void sumDownPlain(const uchar* const* centre, const Taps& taps, int count, std::uint16_t* sums,
                  std::uint16_t* highBytes) {
    sumDown<kRadius>(centre, taps, count, sums, highBytes);
}
template <std::size_t kRadius>
KESTRUNE_WIDE void sumDownWide(const uchar* const* centre, const Taps& taps, int count, std::uint16_t* sums,
                               std::uint16_t* highBytes) {
    sumDown<kRadius>(centre, taps, count, sums, highBytes);
}
template <std::size_t kRadius>
void sumAcrossPlain(const std::uint16_t* sums, const std::uint16_t* highBytes, const Taps& taps, int count,
                    uchar* row) {
    sumAcross<kRadius>(sums, highBytes, taps, count, row);
}
template <std::size_t kRadius>
KESTRUNE_WIDE void sumAcrossWide(const std::uint16_t* sums, const std::uint16_t* highBytes, const Taps& taps, int count,
                                 uchar* row) {
    sumAcross<kRadius>(sums, highBytes, taps, count, row);
}

using SumDown = decltype(&sumDownPlain<0>);
using SumAcross = decltype(&sumAcrossPlain<0>);
constexpr auto kSumDown = functionTable<SumDown, kRadii>([](auto r) { return sumDownPlain<r>; });
constexpr auto kSumDownWide = functionTable<SumDown, kRadii>([](auto r) { return sumDownWide<r>; });
constexpr auto kSumAcross = functionTable<SumAcross, kRadii>([](auto r) { return sumAcrossPlain<r>; });
constexpr auto kSumAcrossWide = functionTable<SumAcross, kRadii>([](auto r) { return sumAcrossWide<r>; });

}  // namespace

std::optional<RowGaussian> RowGaussian::of(int aperture, double sigma) {
    // One white pixel in an image of one row, which the border repeats above and below, shows the taps one by one: of
    // each up to 128 its 255 / 256 rounds to itself.
    const int reach = aperture / 2;
    cv::Mat point = cv::Mat::zeros(1, 2 * aperture + 1, CV_8UC1), shown;
    point.at<uchar>(aperture) = 255;
    cv::GaussianBlur(point, shown, cv::Size(aperture, aperture), sigma, sigma, cv::BORDER_REFLECT_101);
    const uchar* const centre = shown.ptr<uchar>() + aperture;
    RowGaussian gaussian;
    int sum = 0;
    for (int i = 1; i <= reach; ++i) {
        if (centre[i] != centre[-i] || centre[i] > kOne / 2) return std::nullopt;
        if (centre[i] == 0) continue;
        if (i > kLargestRadius) return std::nullopt;
        gaussian.radius_ = i;
        gaussian.taps_[static_cast<std::size_t>(i)] = centre[i];
        sum += 2 * centre[i];
    }
    const int middle = kOne - sum;
    if (middle < 0 || (middle * 255 + kOne / 2) / kOne != *centre) return std::nullopt;
    gaussian.taps_[0] = static_cast<std::uint16_t>(middle);
    return gaussian;
}

int RowGaussian::writtenColumns(int width) {
    return (width + kLanes - 1) / kLanes * kLanes;
}

void RowGaussian::smoothRow(const cv::Mat& image, int y, Scratch& scratch, uchar* row, bool wide) const {
    const auto r = static_cast<std::size_t>(radius_);
    const std::size_t needed = static_cast<std::size_t>(writtenColumns(image.cols)) + 2 * kLargestRadius;
    if (scratch.sums.size() < needed) scratch.sums.resize(needed);
    if (scratch.highBytes.size() < needed) scratch.highBytes.resize(needed);
    std::uint16_t* const sums = scratch.sums.data() + kLargestRadius;
    std::uint16_t* const highBytes = scratch.highBytes.data() + kLargestRadius;

    std::array<const uchar*, 2 * kLargestRadius + 1> rows{};
    for (int i = -radius_; i <= radius_; ++i) {
        const int place = i + radius_;
        rows[static_cast<std::size_t>(place)] =
            image.ptr<uchar>(cv::borderInterpolate(y + i, image.rows, cv::BORDER_REFLECT_101));
    }
    (wide ? kSumDownWide : kSumDown)[r](rows.data() + radius_, taps_, image.cols, sums, highBytes);
    for (int i = 1; i <= radius_; ++i) {
        for (const int x : {-i, image.cols - 1 + i}) {
            const int inside = cv::borderInterpolate(x, image.cols, cv::BORDER_REFLECT_101);
            sums[x] = sums[inside];
            highBytes[x] = highBytes[inside];
        }
    }
    (wide ? kSumAcrossWide : kSumAcross)[r](sums, highBytes, taps_, writtenColumns(image.cols), row);
}

}  // namespace kestrune
