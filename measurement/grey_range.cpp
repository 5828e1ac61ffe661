// SPDX-License-Identifier: Apache-2.0
#include "grey_range.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>

#include "files/inputs.h"
#include "image_file.h"

namespace kestrune::measure {
namespace {

constexpr int kValues16 = 1 << 16;

/// Images whose values are few enough for a table of all of them are left as they are, the others made double.
cv::Mat simplified(const cv::Mat& image) {
    if (image.depth() == CV_16U || image.depth() == CV_32F || image.depth() == CV_64F) return image;
    cv::Mat wide;
    image.convertTo(wide, CV_64F);
    return wide;
}

template <typename Value, typename Use>
void forEachRow(const cv::Mat& image, const Use& use) {
    const int perRow = image.cols * image.channels();
    for (int y = 0; y < image.rows; ++y) use(y, image.ptr<Value>(y), perRow);
}

template <typename Level>
class Mapping {
  public:
    explicit Mapping(const GreyRange& range)
        : low_(range.low), scale_(range.high > range.low ? kMost / (range.high - range.low) : 0) {}

    Level operator()(double value) const {
        if (!std::isfinite(value)) return 0;
        return static_cast<Level>(std::nearbyint(std::clamp((value - low_) * scale_, 0.0, kMost)));
    }

  private:
    static constexpr double kMost = std::numeric_limits<Level>::max();
    double low_, scale_;
};

template <typename Value, typename Level, typename Map>
void mapRows(const cv::Mat& image, cv::Mat& result, const Map& map) {
    forEachRow<Value>(
        image, [&](int y, const Value* from, int n) { std::transform(from, from + n, result.ptr<Level>(y), map); });
}

template <typename Level>
cv::Mat mapped(const cv::Mat& image, const GreyRange& range) {
    const cv::Mat simple = simplified(image);
    cv::Mat result(image.size(), CV_MAKETYPE(cv::DataType<Level>::depth, image.channels()));
    const Mapping<Level> mapping(range);
    if (simple.depth() == CV_16U) {
        std::vector<Level> table(kValues16);
        for (int value = 0; value < kValues16; ++value) table[static_cast<std::size_t>(value)] = mapping(value);
        mapRows<ushort, Level>(simple, result, [&](ushort value) { return table[value]; });
    } else if (simple.depth() == CV_32F) {
        mapRows<float, Level>(simple, result, mapping);
    } else {
        mapRows<double, Level>(simple, result, mapping);
    }
    return result;
}

template <typename Value>
void widen(const cv::Mat& image, double& low, double& high) {
    forEachRow<Value>(image, [&](int, const Value* row, int n) {
        for (int x = 0; x < n; ++x) {
            const double value = row[x];
            if (!std::isfinite(value)) continue;
            low = std::min(low, value);
            high = std::max(high, value);
        }
    });
}

}  // namespace

std::optional<GreyRange> parseRange(const std::string& text) {
    GreyRange range;
    char rest = 0;
    const bool read = std::sscanf(text.c_str(), "%lf:%lf%c", &range.low, &range.high, &rest) == 2;
    if (!read || !std::isfinite(range.low) || !std::isfinite(range.high) || range.low >= range.high)
        return std::nullopt;
    return range;
}

void RangeOfData::add(const cv::Mat& image) {
    const cv::Mat simple = simplified(image);
    if (simple.depth() == CV_16U)
        widen<ushort>(simple, low_, high_);
    else if (simple.depth() == CV_32F)
        widen<float>(simple, low_, high_);
    else
        widen<double>(simple, low_, high_);
}

GreyRange RangeOfData::range() const {
    return low_ <= high_ ? GreyRange{low_, high_} : GreyRange{};
}

cv::Mat toEightBits(const cv::Mat& image, const GreyRange& range) {
    return mapped<uchar>(image, range);
}

cv::Mat toSixteenBits(const cv::Mat& image, const GreyRange& range) {
    return mapped<ushort>(image, range);
}

}  // namespace kestrune::measure
