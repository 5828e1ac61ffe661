// SPDX-License-Identifier: Apache-2.0
#include "canny/edge_rows.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>

#include "canny/edge_suppression.h"
#include "canny/local_maximum.h"
#include "canny/wide_lanes.h"
#include "ellipsedetection/vector_lanes.h"

namespace kestrune {

namespace {

constexpr std::size_t kEdgeRadii = EdgeRows::kLargestRadius + 1;
constexpr int kLargestGrey = 255;
constexpr int kFlagsAtOnce = 8;

using EdgeTaps = std::array<short, kEdgeRadii>;

// By value: compilers make vector instructions of them.
KESTRUNE_BOTH uchar larger(uchar a, uchar b) {
    return a > b ? a : b;
}
KESTRUNE_BOTH uchar smaller(uchar a, uchar b) {
    return a < b ? a : b;
}
KESTRUNE_BOTH uchar difference(uchar a, uchar b) {
    return static_cast<uchar>(larger(a, b) - smaller(a, b));
}

/// Largest difference of two pixels at equal distances on both sides, along the row or the column.
template <std::size_t... kTap>
KESTRUNE_BOTH uchar contrastAt(std::index_sequence<kTap...>, const uchar* const* centre, int x) {
    uchar largest = 0;
    ((largest = larger(largest, larger(difference(centre[0][x - 1 - static_cast<int>(kTap)],
                                                  centre[0][x + 1 + static_cast<int>(kTap)]),
                                       difference(centre[-1 - static_cast<int>(kTap)][x], centre[kTap + 1][x])))),
     ...);
    return largest;
}

/// Numbers the groups of columns in which some contrast exceeds the limit.
///
/// @return how many.
template <std::size_t kRadius>
KESTRUNE_BOTH std::size_t findActive(const uchar* const* centre, int firstColumn, int groups, int limit,
                                     int* __restrict active) {
    std::array<const uchar*, 2 * kRadius + 1> rows;
    std::copy_n(centre - kRadius, rows.size(), rows.begin());
    std::size_t count = 0;
    for (int group = 0; group < groups; ++group) {
        uchar largest = 0;
        const int first = firstColumn + group * kLanes;
        for (int x = first; x < first + kLanes; ++x) {
            largest = larger(largest, contrastAt(std::make_index_sequence<kRadius>(), rows.data() + kRadius, x));
        }
        active[count] = group;
        count += largest > limit ? 1 : 0;
    }
    return count;
}

template <std::size_t... kTap>
KESTRUNE_BOTH int alongRow(std::index_sequence<kTap...>, const EdgeTaps& taps, const uchar* at) {
    return (0 + ... + (taps[kTap + 1] * (at[kTap + 1] - at[-1 - static_cast<int>(kTap)])));
}

template <std::size_t... kTap>
KESTRUNE_BOTH int downColumn(std::index_sequence<kTap...>, const EdgeTaps& taps, const uchar* const* centre, int x) {
    return (0 + ... + (taps[kTap + 1] * (centre[kTap + 1][x] - centre[-1 - static_cast<int>(kTap)][x])));
}

KESTRUNE_BOTH short saturated(int value) {
    return static_cast<short>(std::clamp(value, -32768, 32767));
}

/// Derivatives and squared magnitudes of one group.
template <std::size_t kRadius>
KESTRUNE_BOTH void differentiate(const uchar* const* centre, int first, const EdgeTaps& tapList, short* __restrict dx,
                                 short* __restrict dy, int* __restrict magnitudes) {
    constexpr std::make_index_sequence<kRadius> kTaps;
    const EdgeTaps taps = tapList;
    std::array<const uchar*, 2 * kRadius + 1> rows;
    std::copy_n(centre - kRadius, rows.size(), rows.begin());
    for (int j = 0; j < kLanes; ++j) dx[j] = saturated(alongRow(kTaps, taps, rows[kRadius] + first + j));
    for (int j = 0; j < kLanes; ++j) dy[j] = saturated(downColumn(kTaps, taps, rows.data() + kRadius, first + j));
    for (int j = 0; j < kLanes; ++j) {
        const auto x = static_cast<std::uint32_t>(dx[j] * dx[j]);
        const auto y = static_cast<std::uint32_t>(dy[j] * dy[j]);
        magnitudes[j] = static_cast<int>(x + y);  // 2^31 wraps
    }
}

/// `isLocalMaximum` above the limit, of one group, without a branch.
KESTRUNE_BOTH void findMaxima(const MagnitudeRows& rows, const short* dx, const short* dy, int limit,
                              uchar* __restrict isMaximum) {
    const int* const above = rows.above;
    const int* const centre = rows.centre;
    const int* const below = rows.below;
    for (int j = 0; j < kLanes; ++j) {
        const int m = centre[j];
        const int x = std::abs(int{dx[j]});
        const int y = std::abs(int{dy[j]}) << kTangentShift;
        const int tg22x = x * kTangent22;
        const int isFlat = y < tg22x ? 1 : 0;
        // With 32768 for 32767 the right side would leave 32 bits; the left one is far below either.
        const int isSteep = y - tg22x > (x < 32767 ? x : 32767) << (kTangentShift + 1) ? 1 : 0;
        const int isOpposite = (dx[j] ^ dy[j]) < 0 ? 1 : 0;
        const int along = (m > centre[j - 1] ? 1 : 0) & (m >= centre[j + 1] ? 1 : 0);
        const int down = (m > above[j] ? 1 : 0) & (m >= below[j] ? 1 : 0);
        const int rising = (m > above[j + 1] ? 1 : 0) & (m > below[j - 1] ? 1 : 0);
        const int falling = (m > above[j - 1] ? 1 : 0) & (m > below[j + 1] ? 1 : 0);
        const int diagonal = isOpposite != 0 ? rising : falling;
        const int across = isSteep != 0 ? down : diagonal;
        isMaximum[j] = static_cast<uchar>((m > limit ? 1 : 0) & (isFlat != 0 ? along : across));
    }
}

#if KESTRUNE_EXACT_LANES
/// Sum of the differences of pixels at equal distances, for four pixels. Two taps at a time: their differences stand in
/// the lanes by turns.
///
/// @param difference  of eight pixels at that distance.
template <std::size_t kRadius, typename Difference>
KESTRUNE_BOTH cv::v_int32x4 derivativesOfFour(const EdgeTaps& taps, const Difference& difference) {
    cv::v_int32x4 sum = cv::v_setzero_s32();
    for (std::size_t t = 1; t <= kRadius; t += 2) {
        const short near = taps[t], far = t < kRadius ? taps[t + 1] : short{0};
        cv::v_int16x8 low, high;
        cv::v_zip(difference(t), t < kRadius ? difference(t + 1) : cv::v_setzero_s16(), low, high);
        sum = cv::v_dotprod(low, cv::v_int16x8(near, far, near, far, near, far, near, far), sum);
    }
    return sum;
}

KESTRUNE_BOTH cv::v_int16x8 eightPixels(const uchar* pixels) {
    return cv::v_reinterpret_as_s16(cv::v_load_expand(pixels));
}

template <std::size_t kRadius>
void magnitudesAround(const uchar* const* centre, int x, const EdgeTaps& tapList, Magnitudes& magnitudes) {
    const EdgeTaps taps = tapList;
    const uchar* const* row = centre - 1;
    for (std::array<double, 4>& roots : magnitudes) {
        const auto along = [&](std::size_t t) {
            return eightPixels(row[0] + x - 1 + t) - eightPixels(row[0] + x - 1 - static_cast<std::ptrdiff_t>(t));
        };
        const auto down = [&](std::size_t t) {
            return eightPixels(row[t] + x - 1) - eightPixels(row[-static_cast<std::ptrdiff_t>(t)] + x - 1);
        };
        cv::v_int32x4 dx, dy;
        cv::v_expand(cv::v_pack(derivativesOfFour<kRadius>(taps, along), derivativesOfFour<kRadius>(taps, down)), dx,
                     dy);
        const cv::v_float64x2 x0 = cv::v_cvt_f64(dx), x1 = cv::v_cvt_f64_high(dx);
        const cv::v_float64x2 y0 = cv::v_cvt_f64(dy), y1 = cv::v_cvt_f64_high(dy);
        cv::v_store(roots.data(), cv::v_sqrt(x0 * x0 + y0 * y0));
        cv::v_store(roots.data() + 2, cv::v_sqrt(x1 * x1 + y1 * y1));
        ++row;
    }
}
#else
template <std::size_t kRadius>
void magnitudesAround(const uchar* const* centre, int x, const EdgeTaps& taps, Magnitudes& magnitudes) {
    constexpr std::make_index_sequence<kRadius> kTaps;
    const uchar* const* row = centre - 1;
    for (std::array<double, 4>& roots : magnitudes) {
        for (int j = 0; j < 3; ++j) {
            const double dx = saturated(alongRow(kTaps, taps, row[0] + x - 1 + j));
            const double dy = saturated(downColumn(kTaps, taps, row, x - 1 + j));
            roots[static_cast<std::size_t>(j)] = std::sqrt(dx * dx + dy * dy);
        }
        ++row;
    }
}
#endif

template <std::size_t kRadius>
std::size_t findActivePlain(const uchar* const* centre, int firstColumn, int groups, int limit, int* active) {
    return findActive<kRadius>(centre, firstColumn, groups, limit, active);
}
template <std::size_t kRadius>
KESTRUNE_WIDE std::size_t findActiveWide(const uchar* const* centre, int firstColumn, int groups, int limit,
                                         int* active) {
    return findActive<kRadius>(centre, firstColumn, groups, limit, active);
}
template <std::size_t kRadius>
void differentiatePlain(const uchar* const* centre, int first, const EdgeTaps& taps, short* dx, short* dy,
                        int* magnitudes) {
    differentiate<kRadius>(centre, first, taps, dx, dy, magnitudes);
}
template <std::size_t kRadius>
KESTRUNE_WIDE void differentiateWide(const uchar* const* centre, int first, const EdgeTaps& taps, short* dx, short* dy,
                                     int* magnitudes) {
    differentiate<kRadius>(centre, first, taps, dx, dy, magnitudes);
}

void findMaximaPlain(const MagnitudeRows& rows, const short* dx, const short* dy, int limit, uchar* isMaximum) {
    findMaxima(rows, dx, dy, limit, isMaximum);
}
KESTRUNE_WIDE void findMaximaWide(const MagnitudeRows& rows, const short* dx, const short* dy, int limit,
                                  uchar* isMaximum) {
    findMaxima(rows, dx, dy, limit, isMaximum);
}

using FindActive = decltype(&findActivePlain<0>);
using Differentiate = decltype(&differentiatePlain<0>);
using MagnitudesAround = decltype(&magnitudesAround<0>);
constexpr auto kFindActive = functionTable<FindActive, kEdgeRadii>([](auto r) { return findActivePlain<r>; });
constexpr auto kFindActiveWide = functionTable<FindActive, kEdgeRadii>([](auto r) { return findActiveWide<r>; });
constexpr auto kDifferentiate = functionTable<Differentiate, kEdgeRadii>([](auto r) { return differentiatePlain<r>; });
constexpr auto kDifferentiateWide =
    functionTable<Differentiate, kEdgeRadii>([](auto r) { return differentiateWide<r>; });
constexpr auto kMagnitudesAround =
    functionTable<MagnitudesAround, kEdgeRadii>([](auto r) { return magnitudesAround<r>; });

int groupsOf(int width) {
    return (width + kLanes - 1) / kLanes;
}

/// Column 0 of a row of magnitudes, with one cell before it that is never written.
constexpr std::ptrdiff_t kBefore = 1;

void makeRoom(GradientRows::Row& row, int width) {
    const auto groups = static_cast<std::size_t>(groupsOf(width));
    const std::size_t columns = groups * kLanes;
    row.dx.resize(columns);
    row.dy.resize(columns);
    row.magnitudes.assign(columns + 2 * kBefore, 0);
    row.active.resize(groups + 1);
    row.activeCount = 0;
}

void flatten(GradientRows::Row& row) {
    for (std::size_t k = 0; k < row.activeCount; ++k) {
        std::fill_n(row.magnitudes.data() + kBefore + row.active[k] * kLanes, kLanes, 0);
    }
    row.activeCount = 0;
}

}  // namespace

void reflectMargins(uchar* row, int width) {
    for (int i = 1; i <= SmoothedRows::kMargin; ++i) {
        for (const int x : {-i, width - 1 + i}) row[x] = row[cv::borderInterpolate(x, width, cv::BORDER_REFLECT_101)];
    }
}

std::optional<EdgeRows> EdgeRows::of(const cv::Mat& kernel, int low, int high) {
    const int radius = kernel.rows / 2;
    if (radius > kLargestRadius) return std::nullopt;
    EdgeRows result;
    result.radius_ = radius;
    std::int64_t gain = 0;
    for (int i = 1; i <= radius; ++i) {
        const short tap = kernel.at<short>(radius + i);
        result.taps_[static_cast<std::size_t>(i)] = tap;
        gain += std::abs(tap);
    }
    result.lowSquared_ = saturatedSquare(low);
    result.highSquared_ = saturatedSquare(high);
    // A derivative is at most the gain times the largest difference, and a squared magnitude twice its square.
    const auto isFlat = [&](std::int64_t step) { return 2 * (gain * step) * (gain * step) <= result.lowSquared_; };
    while (result.flatDifference_ < kLargestGrey && isFlat(result.flatDifference_ + 1)) ++result.flatDifference_;
    return result;
}

void EdgeRows::fill(const uchar* const* rows, const cv::Rect& bounds, bool wide, GradientRows::Row& row) const {
    const auto r = static_cast<std::size_t>(radius_);
    row.activeCount = (wide ? kFindActiveWide : kFindActive)[r](rows, bounds.x, groupsOf(bounds.width), flatDifference_,
                                                                row.active.data());
    const auto differentiateGroup = (wide ? kDifferentiateWide : kDifferentiate)[r];
    int* const magnitudes = row.magnitudes.data() + kBefore;
    for (std::size_t k = 0; k < row.activeCount; ++k) {
        const int first = row.active[k] * kLanes;
        differentiateGroup(rows, bounds.x + first, taps_, row.dx.data() + first, row.dy.data() + first,
                           magnitudes + first);
        if (first + kLanes > bounds.width) std::fill(magnitudes + bounds.width, magnitudes + first + kLanes, 0);
    }
}

/// Keeps the local maxima of the middle row.
void EdgeRows::judge(const std::array<const GradientRows::Row*, 3>& rows, const cv::Point& origin, bool wide,
                     EdgePixels& pixels) const {
    const GradientRows::Row& centre = *rows[1];
    const auto findGroup = wide ? findMaximaWide : findMaximaPlain;
    for (std::size_t k = 0; k < centre.activeCount; ++k) {
        const int first = centre.active[k] * kLanes;
        const std::ptrdiff_t cell = kBefore + first;
        const MagnitudeRows around = {rows[0]->magnitudes.data() + cell, centre.magnitudes.data() + cell,
                                      rows[2]->magnitudes.data() + cell};
        std::array<uchar, kLanes> isMaximum;
        findGroup(around, centre.dx.data() + first, centre.dy.data() + first, lowSquared_, isMaximum.data());
        for (int from = 0; from < kLanes; from += kFlagsAtOnce) {
            std::uint64_t flags = 0;
            std::memcpy(&flags, isMaximum.data() + from, sizeof flags);
            for (int j = from; flags != 0 && j < from + kFlagsAtOnce; ++j) {
                if (isMaximum[static_cast<std::size_t>(j)] == 0) continue;
                const cv::Point pixel(origin.x + first + j, origin.y);
                pixels.candidates.push_back(pixel);
                if (around.centre[j] > highSquared_) pixels.seeds.push_back(pixel);
            }
        }
    }
}

void EdgeRows::suppress(const SmoothedRows& rows, const cv::Rect& strip, const cv::Rect& bounds, bool wide,
                        GradientRows& scratch, EdgePixels& pixels) const {
    pixels.candidates.clear();
    pixels.seeds.clear();
    for (GradientRows::Row& row : scratch.rows) makeRoom(row, bounds.width);
    GradientRows::Row* above = &scratch.rows[0];
    GradientRows::Row* centre = &scratch.rows[1];
    GradientRows::Row* below = &scratch.rows[2];
    for (int y = strip.y - 1; y <= strip.br().y; ++y) {
        flatten(*below);
        if (y >= bounds.y && y < bounds.br().y) fill(rows.at(y), bounds, wide, *below);
        if (y > strip.y) judge({above, centre, below}, {bounds.x, y - 1}, wide, pixels);
        std::swap(above, centre);
        std::swap(centre, below);
    }
}

void EdgeRows::magnitudesAround(const uchar* const* rows, int x, Magnitudes& magnitudes) const {
    kMagnitudesAround[static_cast<std::size_t>(radius_)](rows, x, taps_, magnitudes);
}

}  // namespace kestrune
