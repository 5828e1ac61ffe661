// SPDX-License-Identifier: Apache-2.0
#include "blobs/local_threshold.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <opencv2/imgproc.hpp>

#include "checks/settings_check.h"
#include "ellipsedetection/vector_lanes.h"

namespace kestrune {

namespace {

constexpr double kTapOne = 65536;  ///< of the whole-number mean; a tap of a Gaussian is at most a half
constexpr int kMeanOne = 128;      ///< of a mean along columns, units per grey level
constexpr int kOne = 64;           ///< of a mean and of what it is compared with: differences fit 16 bits
constexpr int kUselessDoubt = kOne / 2;
constexpr int kGroup = 16;  ///< pixels that are decided together
constexpr int kLanes = 8;
constexpr uchar kUnsure = 0xff;  ///< marks of a pixel: neither; in between
constexpr uchar kBright = 0xfe;
constexpr double kFloatStep = 0x1p-24;  ///< relative error of an operation in single precision

int roundUp(int value, int step) {
    return (value + step - 1) / step * step;
}

/// Extent of a widened row: each group of the image with what the block reaches to either side of it.
int widenedSize(int width, int reach) {
    return roundUp(roundUp(width, kGroup) + 2 * reach, kGroup);
}

/// The rows of a window and the places of its columns, with the outermost ones repeated.
int clampTo(int place, int count) {
    return std::clamp(place, 0, count - 1);
}

/// Whether a pixel is bright by its mean in double precision: 1, 0, or -1 if that is too close.
int decideFinely(const cv::Mat& image, const ThresholdPlan& plan, int x, int y, std::vector<double>& sums) {
    const int reach = plan.reach(), n = plan.aperture;
    std::ranges::fill(sums, 0.0);
    const bool isInside = x >= reach && x + reach < image.cols;
    for (int j = 0; j < n; ++j) {
        const uchar* const row = image.ptr<uchar>(clampTo(y + j - reach, image.rows));
        const auto tap = static_cast<double>(plan.taps[static_cast<std::size_t>(j)]);
        double* const __restrict sum = sums.data();
        if (isInside) {
            const uchar* const first = row + x - reach;
            for (int i = 0; i < n; ++i) sum[i] += tap * first[i];
        } else {
            for (int i = 0; i < n; ++i) sum[i] += tap * row[clampTo(x + i - reach, image.cols)];
        }
    }
    double mean = 0;
    for (std::size_t i = 0; i < sums.size(); ++i) mean += static_cast<double>(plan.taps[i]) * sums[i];
    const double above = image.ptr<uchar>(y)[x] - plan.excess() - 0.5 - mean;
    return std::abs(above) < plan.floatDoubt ? -1 : static_cast<int>(above > 0);
}

#if KESTRUNE_EXACT_LANES
void widenRow(const uchar* source, int width, int reach, std::uint16_t* to, int size) {
    std::uint16_t* const first = to + reach;
    int x = 0;
    for (; x + kLanes <= width; x += kLanes) cv::v_store(first + x, cv::v_shl<7>(cv::v_load_expand(source + x)));
    for (; x < width; ++x) first[x] = static_cast<std::uint16_t>(source[x] * kMeanOne);
    std::fill(to, first, *first);
    std::fill(first + width, to + size, first[width - 1]);
}

/// Sum of products of 16 numbers each, by taps that mirror: `at(k)` and `at(-k)` have the same.
template <typename At>
void meanOfGroup(const ThresholdPlan& plan, const At& at, cv::v_uint16x8& low, cv::v_uint16x8& high) {
    const std::uint16_t* tap = plan.lanes.data();
    const std::uint16_t* const centre = at(0);
    cv::v_uint16x8 factor = cv::v_load(tap);
    // Each product loses half a unit on average.
    const cv::v_uint16x8 lost = cv::v_setall_u16(static_cast<std::uint16_t>(plan.terms / 2));
    low = cv::v_add_wrap(lost, cv::v_mul_hi(cv::v_load(centre), factor));
    high = cv::v_add_wrap(lost, cv::v_mul_hi(cv::v_load(centre + kLanes), factor));
    for (int k = 1; k < plan.terms; ++k) {
        const std::uint16_t* const before = at(-k);
        const std::uint16_t* const behind = at(k);
        factor = cv::v_load(tap += kLanes);
        low = cv::v_add_wrap(low, cv::v_mul_hi(cv::v_add_wrap(cv::v_load(before), cv::v_load(behind)), factor));
        high = cv::v_add_wrap(
            high, cv::v_mul_hi(cv::v_add_wrap(cv::v_load(before + kLanes), cv::v_load(behind + kLanes)), factor));
    }
}

struct RowMarks {
    bool isAnyBright, isAnyUnsure;  ///< the first with those that are unsure
};

/// @param rows   of the block, widened.
/// @param marks  result, whole groups.
RowMarks markRow(const ThresholdPlan& plan, const std::vector<const std::uint16_t*>& rows, int width,
                 std::vector<std::uint16_t>& column, uchar* marks) {
    const int reach = plan.reach();
    const std::uint16_t* const* const middle = rows.data() + reach;
    cv::v_uint16x8 low, high;
    for (int x = 0; x < static_cast<int>(column.size()); x += kGroup) {
        meanOfGroup(
            plan, [&](int k) { return middle[k] + x; }, low, high);
        cv::v_store(column.data() + x, low);
        cv::v_store(column.data() + x + kLanes, high);
    }
    const cv::v_int16x8 limit = cv::v_setall_s16(static_cast<short>(plan.excess() * kOne + kOne / 2));
    const cv::v_int16x8 doubt = cv::v_setall_s16(static_cast<short>(plan.doubt));
    const cv::v_int16x8 negativeDoubt = cv::v_setall_s16(static_cast<short>(-plan.doubt));
    const auto aboveOf = [&](const std::uint16_t* pixels, const cv::v_uint16x8& mean) {
        const cv::v_int16x8 value = cv::v_reinterpret_as_s16(cv::v_shr<1>(cv::v_load(pixels)));
        return cv::v_sub_wrap(cv::v_sub_wrap(value, limit), cv::v_reinterpret_as_s16(cv::v_shr<1>(mean)));
    };
    cv::v_int16x8 anyBright = cv::v_setzero_s16(), anyUnsure = cv::v_setzero_s16();
    for (int x = 0; x < width; x += kGroup) {
        const std::uint16_t* const means = column.data() + reach + x;
        meanOfGroup(
            plan, [&](int k) { return means + k; }, low, high);
        const cv::v_int16x8 aboveLow = aboveOf(*middle + reach + x, low);
        const cv::v_int16x8 aboveHigh = aboveOf(*middle + reach + x + kLanes, high);
        const cv::v_int16x8 sureLow = aboveLow > doubt, sureHigh = aboveHigh > doubt;
        const cv::v_int16x8 maybeLow = aboveLow > negativeDoubt, maybeHigh = aboveHigh > negativeDoubt;
        anyBright = anyBright | maybeLow | maybeHigh;
        anyUnsure = anyUnsure | (maybeLow ^ sureLow) | (maybeHigh ^ sureHigh);
        cv::v_store(reinterpret_cast<schar*>(marks) + x,
                    cv::v_pack(cv::v_add_wrap(sureLow, maybeLow), cv::v_add_wrap(sureHigh, maybeHigh)));
    }
    return {cv::v_check_any(anyBright), cv::v_check_any(anyUnsure)};
}

/// @return whether a pixel is left that rounding could turn.
bool settleUnsure(const cv::Mat& image, const ThresholdPlan& plan, int y, uchar* marks, std::vector<double>& sums) {
    for (int begin = 0; begin < image.cols; begin += kLanes) {
        std::uint64_t word;
        std::memcpy(&word, marks + begin, sizeof word);
        if (word == 0) continue;
        for (int x = begin; x < begin + kLanes; ++x) {
            if (marks[x] != kUnsure) continue;
            const int isBright = decideFinely(image, plan, x, y, sums);
            if (isBright < 0) return true;
            marks[x] = isBright > 0 ? kBright : 0;
        }
    }
    return false;
}

/// Widens rows as they are reached; each has its place in the ring.
class WidenedRows {
  public:
    WidenedRows(const cv::Mat& image, const ThresholdPlan& plan, ThresholdScratch& scratch, int from)
        : image_(image), plan_(plan), scratch_(scratch), size_(widenedSize(image.cols, plan.reach())), next_(from) {
        scratch_.widened.resize(static_cast<std::size_t>(size_) * static_cast<std::size_t>(plan.aperture));
        scratch_.column.resize(static_cast<std::size_t>(size_));
        scratch_.rows.resize(static_cast<std::size_t>(plan.aperture));
    }
    /// The rows of the block around `y`, which may not be less than that of the call before.
    const std::vector<const std::uint16_t*>& around(int y) {
        const int reach = plan_.reach(), last = clampTo(y + reach, image_.rows);
        for (; next_ <= last; ++next_) widenRow(image_.ptr<uchar>(next_), image_.cols, reach, placeOf(next_), size_);
        for (int k = 0; k < plan_.aperture; ++k) {
            scratch_.rows[static_cast<std::size_t>(k)] = placeOf(clampTo(y + k - reach, image_.rows));
        }
        return scratch_.rows;
    }

  private:
    std::uint16_t* placeOf(int row) {
        return scratch_.widened.data() + static_cast<std::ptrdiff_t>(row % plan_.aperture) * size_;
    }
    const cv::Mat& image_;
    const ThresholdPlan& plan_;
    ThresholdScratch& scratch_;
    int size_, next_;
};
#endif

uchar* brightRow(ThresholdScratch& scratch, int row) {
    return scratch.bright.data() + scratch.stride * static_cast<std::size_t>(row);
}

/// Rows whose blocks touch are decided together.
void decideAgain(const cv::Mat& image, const ThresholdPlan& plan, int firstRow, ThresholdScratch& scratch) {
    const std::vector<int>& rows = scratch.undecided;
    const int reach = plan.reach();
    for (std::size_t begin = 0, end; begin < rows.size(); begin = end) {
        for (end = begin + 1; end < rows.size() && rows[end] - rows[end - 1] <= 2 * reach;) ++end;
        const int top = std::max(0, rows[begin] - reach), bottom = std::min(image.rows, rows[end - 1] + reach + 1);
        cv::adaptiveThreshold(image.rowRange(top, bottom), scratch.redone, kBright, cv::ADAPTIVE_THRESH_GAUSSIAN_C,
                              cv::THRESH_BINARY, plan.aperture, plan.constant);
        for (std::size_t k = begin; k < end; ++k) {
            std::memcpy(brightRow(scratch, rows[k] - firstRow), scratch.redone.ptr(rows[k] - top),
                        static_cast<std::size_t>(image.cols));
            scratch.isEmpty[static_cast<std::size_t>(rows[k] - firstRow)] = 0;
        }
    }
}

}  // namespace

ThresholdPlan::ThresholdPlan(int apertureGiven, int thresholdC)
    : aperture(apertureGiven), constant(static_cast<int>(usableThresholdC(thresholdC))), terms(0) {
    const cv::Mat kernel = cv::getGaussianKernel(aperture, 0, CV_32F);
    taps.assign(kernel.ptr<float>(), kernel.ptr<float>() + aperture);
    double tapError = 0;
    for (int k = 0; k <= reach(); ++k) {
        const int place = reach() + k;
        const auto tap = static_cast<double>(taps[static_cast<std::size_t>(place)]);
        const auto whole = static_cast<std::uint16_t>(std::lround(tap * kTapOne));
        tapError += (k == 0 ? 1 : 2) * std::abs(whole / kTapOne - tap);
        if (whole == 0) continue;
        lanes.insert(lanes.end(), kLanes, whole);
        ++terms;
    }
    // Two passes, then a bit that is cut off.
    const double wholeError = 2 * (255 * tapError + (0.5 * terms + 0.5) / kMeanOne) + 1.0 / kOne;
    doubt = static_cast<int>(std::ceil(std::min(wholeError * kOne, 1.0 * kUselessDoubt))) + 1;
    // Two passes of as many products and sums, none greater than 256.
    floatDoubt = 2 * (aperture + 2) * 256 * kFloatStep;
}

void thresholdRows(const cv::Mat& image, const ThresholdPlan& plan, cv::Range rows, ThresholdScratch& scratch) {
    const auto count = static_cast<std::size_t>(rows.size());
    scratch.stride = static_cast<std::size_t>(roundUp(image.cols, kGroup));
    scratch.bright.resize(scratch.stride * count);
    scratch.isEmpty.assign(count, 0);
    scratch.undecided.clear();
    bool isCoarse = false;
#if KESTRUNE_EXACT_LANES
    isCoarse = plan.doubt < kUselessDoubt;
    if (isCoarse) {
        scratch.sums.resize(static_cast<std::size_t>(plan.aperture));
        WidenedRows widened(image, plan, scratch, std::max(0, rows.start - plan.reach()));
        for (int y = rows.start; y < rows.end; ++y) {
            uchar* const marks = brightRow(scratch, y - rows.start);
            const RowMarks found = markRow(plan, widened.around(y), image.cols, scratch.column, marks);
            std::fill(marks + image.cols, marks + scratch.stride, uchar{0});
            scratch.isEmpty[static_cast<std::size_t>(y - rows.start)] = found.isAnyBright ? 0 : 1;
            if (found.isAnyUnsure && settleUnsure(image, plan, y, marks, scratch.sums)) scratch.undecided.push_back(y);
        }
    }
#endif
    if (!isCoarse) {
        std::ranges::fill(scratch.bright, uchar{0});
        for (int y = rows.start; y < rows.end; ++y) scratch.undecided.push_back(y);
    }
    decideAgain(image, plan, rows.start, scratch);
}

}  // namespace kestrune
