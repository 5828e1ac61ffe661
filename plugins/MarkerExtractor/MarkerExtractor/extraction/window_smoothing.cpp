// SPDX-License-Identifier: Apache-2.0
#include "MarkerExtractor/extraction/window_smoothing.h"

#include <algorithm>
#include <array>
#include <opencv2/imgproc.hpp>

#include "ellipsedetection/vector_lanes.h"

namespace kestrune {

namespace {

constexpr int kLanes = 8;
constexpr int kCacheLine = 64;  ///< bytes
constexpr int kRowsAhead = 8;
constexpr int kTapBits = 8;
constexpr int kTapOne = 1 << kTapBits;
constexpr int kOffset = 0x8000;  ///< takes a sum along a row, below 2^16, into 16 bits with a sign
constexpr int kTrialSide = 40;   ///< px: rows of whole groups

void blur(const cv::Mat& image, cv::Mat& smooth, const SmoothingPlan& plan) {
    cv::GaussianBlur(image, smooth, cv::Size(plan.aperture, plan.aperture), plan.sigma, plan.sigma,
                     cv::BORDER_REFLECT_101);
}

#if KESTRUNE_EXACT_LANES
/// Asks for a row's pixels early: rows of a window lie too far apart for the processor to see what comes next.
void askForRow(const uchar* row, const cv::Rect& window) {
    for (int x = 0; x < window.width; x += kCacheLine) __builtin_prefetch(row + window.x + x);
    __builtin_prefetch(row + window.x + window.width - 1);
}

/// A row of the image from `reach` before the window to `reach` behind it.
void readRow(const uchar* row, const cv::Rect& window, int reach, SmoothingScratch& scratch) {
    const int first = window.x - reach, count = window.width + 2 * reach;
    std::uint16_t* const line = scratch.line.data();
    int k = 0;
    if (scratch.columns.empty()) {
        for (; k + kLanes <= count; k += kLanes) cv::v_store(line + k, cv::v_load_expand(row + first + k));
        for (; k < count; ++k) line[k] = row[first + k];
    } else {
        for (const int column : scratch.columns) line[k++] = row[column];
    }
}

void smoothAlongRow(const SmoothingPlan& plan, const std::uint16_t* line, int groups, std::int16_t* to) {
    const cv::v_uint16x8 offset = cv::v_setall_u16(kOffset);
    for (int x = 0; x < groups * kLanes; x += kLanes) {
        const std::uint16_t* const centre = line + plan.reach + x;
        const std::uint16_t* tap = plan.rowLanes.data();
        cv::v_uint16x8 sum = cv::v_mul_wrap(cv::v_load(centre), cv::v_load(tap));
        for (int k = 1; k <= plan.reach; ++k) {
            const cv::v_uint16x8 pair = cv::v_add_wrap(cv::v_load(centre - k), cv::v_load(centre + k));
            sum = cv::v_add_wrap(sum, cv::v_mul_wrap(pair, cv::v_load(tap += kLanes)));
        }
        cv::v_store(to + x, cv::v_reinterpret_as_s16(cv::v_sub_wrap(sum, offset)));
    }
}

/// @param rows  the first of those that have a say, `stride` apart.
void smoothAcrossRows(const SmoothingPlan& plan, const std::int16_t* rows, int groups, uchar* to) {
    const int stride = groups * kLanes, count = 2 * plan.reach + 1;
    // The offset of all sums along rows, and a half for rounding.
    const cv::v_int32x4 rest = cv::v_setall_s32(kOffset * kTapOne + (1 << (2 * kTapBits - 1)));
    for (int x = 0; x < stride; x += kLanes) {
        cv::v_int32x4 low = rest, high = rest;
        const std::int16_t* taps = plan.pairLanes.data();
        for (int k = 0; k < count; k += 2, taps += kLanes) {
            const std::int16_t* const row = rows + static_cast<std::ptrdiff_t>(k) * stride + x;
            cv::v_int16x8 first, second;
            cv::v_zip(cv::v_load(row), cv::v_load(k + 1 < count ? row + stride : row), first, second);
            const cv::v_int16x8 pair = cv::v_load(taps);
            low = cv::v_dotprod(first, pair, low);
            high = cv::v_dotprod(second, pair, high);
        }
        const cv::v_int16x8 grey = cv::v_pack(cv::v_shr<2 * kTapBits>(low), cv::v_shr<2 * kTapBits>(high));
        cv::v_pack_u_store(to + x, grey);
    }
}
#endif

/// Taps as an impulse shows them: 255/256 of them, which rounds to them up to 128. Only the middle one may be greater.
std::vector<std::uint16_t> measureTaps(const SmoothingPlan& plan) {
    cv::Mat impulse = cv::Mat::zeros(1, 2 * plan.aperture + 1, CV_8UC1), response;
    impulse.at<uchar>(plan.aperture) = 255;
    blur(impulse, response, plan);
    std::vector<std::uint16_t> taps(1, kTapOne);
    for (int k = 1; k <= plan.aperture / 2; ++k) {
        taps.push_back(response.at<uchar>(plan.aperture + k));
        taps[0] = static_cast<std::uint16_t>(taps[0] - 2 * taps.back());
    }
    while (taps.size() > 1 && taps.back() == 0) taps.pop_back();  // further inwards there may be one, too
    return taps;
}

/// Whether an image of noise comes out the same.
bool isLikeOpenCv(const SmoothingPlan& plan) {
    cv::Mat noise(kTrialSide, kTrialSide, CV_8UC1), expected, smooth(noise.size(), CV_8UC1);
    std::uint32_t state = 1;
    std::generate_n(noise.ptr(), noise.total(), [&state] {
        state = state * 1664525 + 1013904223;
        return static_cast<uchar>(state >> 24);
    });
    blur(noise, expected, plan);
    SmoothingScratch scratch;
    smoothWindow(noise, cv::Rect(0, 0, kTrialSide, kTrialSide), plan, scratch, smooth.ptr(), kTrialSide);
    return std::equal(smooth.ptr(), smooth.ptr() + smooth.total(), expected.ptr());
}

}  // namespace

SmoothingPlan::SmoothingPlan(int apertureGiven, double sigmaGiven) : aperture(apertureGiven), sigma(sigmaGiven) {
    taps = measureTaps(*this);
    reach = static_cast<int>(taps.size()) - 1;
    for (const std::uint16_t tap : taps) rowLanes.insert(rowLanes.end(), kLanes, tap);
    for (int k = -reach; k <= reach; k += 2) {
        const std::array<std::uint16_t, 2> pair = {
            taps[static_cast<std::size_t>(std::abs(k))],
            k < reach ? taps[static_cast<std::size_t>(std::abs(k + 1))] : std::uint16_t{0}};
        for (std::size_t lane = 0; lane < kLanes; ++lane)
            pairLanes.push_back(static_cast<std::int16_t>(pair[lane % 2]));
    }
    isExact = KESTRUNE_EXACT_LANES && isLikeOpenCv(*this);
}

int smoothedStride(int width) {
    return (width + kLanes - 1) / kLanes * kLanes;
}

void smoothWindow([[maybe_unused]] const cv::Mat& image, [[maybe_unused]] const cv::Rect& window,
                  [[maybe_unused]] const SmoothingPlan& plan, [[maybe_unused]] SmoothingScratch& scratch,
                  [[maybe_unused]] uchar* to, [[maybe_unused]] std::ptrdiff_t step) {
#if KESTRUNE_EXACT_LANES
    const int stride = smoothedStride(window.width), reach = plan.reach, rows = window.height + 2 * reach;
    const int lineLength = stride + 2 * reach;
    scratch.line.resize(static_cast<std::size_t>(lineLength));
    scratch.rows.resize(static_cast<std::size_t>(stride) * static_cast<std::size_t>(rows));
    scratch.columns.clear();
    if (window.x < reach || window.br().x + reach > image.cols) {
        for (int x = window.x - reach; x < window.br().x + reach; ++x) {
            scratch.columns.push_back(cv::borderInterpolate(x, image.cols, cv::BORDER_REFLECT_101));
        }
    }
    for (int k = 0; k < rows; ++k) {
        const int row = cv::borderInterpolate(window.y - reach + k, image.rows, cv::BORDER_REFLECT_101);
        if (row + kRowsAhead < image.rows) askForRow(image.ptr<uchar>(row + kRowsAhead), window);
        readRow(image.ptr<uchar>(row), window, reach, scratch);
        smoothAlongRow(plan, scratch.line.data(), stride / kLanes,
                       scratch.rows.data() + static_cast<std::ptrdiff_t>(k) * stride);
    }
    for (int k = 0; k < window.height; ++k) {
        smoothAcrossRows(plan, scratch.rows.data() + static_cast<std::ptrdiff_t>(k) * stride, stride / kLanes,
                         to + k * step);
    }
#endif
}

}  // namespace kestrune
