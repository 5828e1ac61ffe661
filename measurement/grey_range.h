// SPDX-License-Identifier: Apache-2.0
//
// Images of more than 8 bits, or of floating point, to the 8 that the library takes. All images of a run are mapped
// alike, so that markers of one brightness stay of one brightness.
#pragma once

#include <limits>
#include <opencv2/core.hpp>
#include <optional>
#include <string>

namespace kestrune::measure {

/// `low` becomes 0, `high` 255.
struct GreyRange {
    double low = 0, high = 0;
};

/// Reads "LOW:HIGH"; none unless both are finite numbers and the first is the smaller one.
std::optional<GreyRange> parseRange(const std::string& text);

/// The smallest and the largest value of all images that were added, of pixels that are finite numbers.
class RangeOfData {
  public:
    void add(const cv::Mat& image);

    /// 0 to 0 where there was no number at all.
    GreyRange range() const;

  private:
    double low_ = std::numeric_limits<double>::infinity(), high_ = -low_;
};

/// (value - low) * 255 / (high - low) in double precision, rounded to the nearest whole number, halves to the even one;
/// 0 below and 255 above the range. What is no finite number (how cameras mark pixels without a value) counts as `low`,
/// and a range without extent gives 0 everywhere.
cv::Mat toEightBits(const cv::Mat& image, const GreyRange& range);

/// The same with 65535 in the place of 255.
cv::Mat toSixteenBits(const cv::Mat& image, const GreyRange& range);

}  // namespace kestrune::measure
