// SPDX-License-Identifier: Apache-2.0
#include "canny/edge_suppression.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <limits>
#include <memory>
#include <opencv2/core/hal/intrin.hpp>

#include "canny/local_maximum.h"

namespace kestrune {

namespace {

// States of a cell of the map.
constexpr uchar kCandidate = 0;
constexpr uchar kNoEdge = 1;
constexpr uchar kEdge = 2;

constexpr std::size_t kLeastStack = 1024;
constexpr int kPixelsAtOnce = 16;  ///< pixels that are passed over at once where no magnitude reaches the low threshold

/// Addresses of map cells whose neighbours are still to be looked at. Grows by half; never shrinks.
class CellStack {
  public:
    explicit CellStack(std::size_t capacity)
        : cells_(std::make_unique_for_overwrite<uchar*[]>(capacity)), capacity_(capacity) {}

    void makeRoomFor(std::size_t more) {
        if (size_ + more <= capacity_) return;
        const std::size_t grown = std::max(capacity_ * 3 / 2, size_ + more);
        auto cells = std::make_unique_for_overwrite<uchar*[]>(grown);
        std::copy_n(cells_.get(), size_, cells.get());
        cells_ = std::move(cells);
        capacity_ = grown;
    }
    void push(uchar* cell) {
        *cell = kEdge;
        cells_[size_++] = cell;
    }
    uchar* pop() { return cells_[--size_]; }
    bool empty() const { return size_ == 0; }

  private:
    std::unique_ptr<uchar*[]> cells_;
    std::size_t capacity_;
    std::size_t size_ = 0;
};

bool nothingAbove(const int* magnitudes, int limit) {
#if CV_SIMD128
    const cv::v_int32x4 bound = cv::v_setall_s32(limit);
    const cv::v_int32x4 hit = (cv::v_load(magnitudes) > bound) | (cv::v_load(magnitudes + 4) > bound) |
                              (cv::v_load(magnitudes + 8) > bound) | (cv::v_load(magnitudes + 12) > bound);
    return !cv::v_check_any(hit);
#else
    return std::none_of(magnitudes, magnitudes + kPixelsAtOnce, [limit](int m) { return m > limit; });
#endif
}

struct Thresholds {
    int lowSquared;
    int highSquared;
};

/// Writes one row of the map. `previousSeed` suppresses a second seed right beside the first: hysteresis reaches it.
void judgeRow(const MagnitudeRows& rows, const short* dx, const short* dy, int width, const Thresholds& limits,
              std::ptrdiff_t mapStep, uchar* map, CellStack& stack) {
    bool previousSeed = false;
    int j = 0;
    while (j < width) {
        if (j + kPixelsAtOnce <= width && nothingAbove(rows.centre + j, limits.lowSquared)) {
            std::memset(map + j, kNoEdge, kPixelsAtOnce);
            previousSeed = false;
            j += kPixelsAtOnce;
            continue;
        }
        for (const int end = std::min(j + kPixelsAtOnce, width); j < end; ++j) {
            const int m = rows.centre[j];
            if (m <= limits.lowSquared || !isLocalMaximum(rows, j, dx[j], dy[j])) {
                map[j] = kNoEdge;
                previousSeed = false;
            } else if (!previousSeed && m > limits.highSquared && map[j - mapStep] != kEdge) {
                stack.push(map + j);
                previousSeed = true;
            } else {
                map[j] = kCandidate;
            }
        }
    }
}

void linkCandidates(CellStack& stack, std::ptrdiff_t mapStep) {
    const std::ptrdiff_t neighbours[8] = {-1,           1,           -mapStep - 1, -mapStep,
                                          -mapStep + 1, mapStep - 1, mapStep,      mapStep + 1};
    while (!stack.empty()) {
        stack.makeRoomFor(8);
        uchar* cell = stack.pop();
        for (const std::ptrdiff_t offset : neighbours) {
            if (cell[offset] == kCandidate) stack.push(cell + offset);
        }
    }
}

}  // namespace

int saturatedSquare(int threshold) {
    const std::int64_t value = std::max(threshold, 0);
    return static_cast<int>(std::min<std::int64_t>(value * value, std::numeric_limits<int>::max()));
}

void squaredMagnitudesPlain(const short* dx, const short* dy, int* magnitudes, int count) {
    for (int j = 0; j < count; ++j) {
        // Unsigned, because two derivatives of -32768 make 2^31: it wraps, here as in the vector form.
        const auto x = static_cast<std::uint32_t>(dx[j] * dx[j]);
        const auto y = static_cast<std::uint32_t>(dy[j] * dy[j]);
        magnitudes[j] = static_cast<int>(x + y);
    }
}

void squaredMagnitudesVector(const short* dx, const short* dy, int* magnitudes, int count) {
    int j = 0;
#if CV_SIMD128
    for (; j + 8 <= count; j += 8) {
        cv::v_int16x8 first, second;
        cv::v_zip(cv::v_load(dx + j), cv::v_load(dy + j), first, second);
        cv::v_store(magnitudes + j, cv::v_dotprod(first, first));
        cv::v_store(magnitudes + j + 4, cv::v_dotprod(second, second));
    }
#endif
    squaredMagnitudesPlain(dx + j, dy + j, magnitudes + j, count - j);
}

void suppressAndLinkEdges(const cv::Mat& src, const cv::Mat& dx, const cv::Mat& dy, int low, int high, cv::Mat& edges) {
    CV_Assert(dx.type() == CV_16SC1 && dy.type() == CV_16SC1 && dx.size() == src.size() && dy.size() == src.size());
    const int width = src.cols;
    const int height = src.rows;
    edges.create(height, width, CV_8UC1);
    if (width == 0 || height == 0) return;

    const Thresholds limits = {saturatedSquare(low), saturatedSquare(high)};
    const auto magnitudes = cv::checkHardwareSupport(CV_CPU_SSE2) ? squaredMagnitudesVector : squaredMagnitudesPlain;

    // One buffer: three rows of magnitudes and the map, each with a guard cell on every side.
    const std::size_t step = static_cast<std::size_t>(width) + 2;
    const std::size_t mapBytes = step * (static_cast<std::size_t>(height) + 2);
    const auto buffer = std::make_unique_for_overwrite<int[]>(3 * step + (mapBytes + sizeof(int) - 1) / sizeof(int));
    int* above = buffer.get();
    int* centre = above + step;
    int* below = centre + step;
    uchar* const map = reinterpret_cast<uchar*>(below + step);
    std::fill_n(above, step, 0);
    std::memset(map, kNoEdge, step);
    std::memset(map + mapBytes - step, kNoEdge, step);

    CellStack stack(std::max(kLeastStack, static_cast<std::size_t>(width) * static_cast<std::size_t>(height) / 10));
    for (int i = 0; i <= height; ++i) {
        int* newest = i == 0 ? centre : below;
        if (i < height) {
            magnitudes(dx.ptr<short>(i), dy.ptr<short>(i), newest + 1, width);
            newest[0] = newest[width + 1] = 0;
        } else {
            std::fill_n(newest, step, 0);
        }
        if (i == 0) continue;

        uchar* const mapRow = map + static_cast<std::size_t>(i) * step;
        mapRow[0] = mapRow[width + 1] = kNoEdge;
        stack.makeRoomFor(static_cast<std::size_t>(width));
        judgeRow({above + 1, centre + 1, below + 1}, dx.ptr<short>(i - 1), dy.ptr<short>(i - 1), width, limits,
                 static_cast<std::ptrdiff_t>(step), mapRow + 1, stack);
        int* const oldest = above;
        above = centre;
        centre = below;
        below = oldest;
    }
    linkCandidates(stack, static_cast<std::ptrdiff_t>(step));

    for (int i = 0; i < height; ++i) {
        const uchar* const mapRow = map + (static_cast<std::size_t>(i) + 1) * step + 1;
        uchar* const out = edges.ptr<uchar>(i);
        for (int j = 0; j < width; ++j) out[j] = static_cast<uchar>(-(mapRow[j] >> 1));
    }
}

}  // namespace kestrune
