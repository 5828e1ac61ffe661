// SPDX-License-Identifier: Apache-2.0
//
// Turns a fuzzer's bytes into what a host may hand to the library. The first bytes decide what is done, later ones what
// is spoiled about it; bytes that are not there are zeros, so that the shortest input is an unspoiled exposure.
#pragma once

#include <fuzzer/FuzzedDataProvider.h>

#include <opencv2/core.hpp>
#include <vector>

#include "exposures.h"
#include "kestrune/MarkerExtractor.h"

namespace kestrune::fuzz {

class Input {
  public:
    Input(const std::uint8_t* data, std::size_t size) : data_(data, size) {}

    bool flag() { return data_.ConsumeBool(); }
    int whole(int least, int largest) { return data_.ConsumeIntegralInRange(least, largest); }
    template <typename List>
    auto& oneOf(List& list) {
        return list[static_cast<std::size_t>(whole(0, static_cast<int>(std::size(list)) - 1))];
    }
    /// One time in sixteen.
    bool isOdd() { return whole(0, 15) == 15; }

    /// Within the range, but one time in sixteen any number of the type, infinities and NaN included.
    int integer(int least, int largest) { return isOdd() ? data_.ConsumeIntegral<int>() : whole(least, largest); }
    double real(double least, double largest);
    float single(double least, double largest) { return static_cast<float>(real(least, largest)); }

    /// Up to `most` fields changed.
    CicrleConfigs spoiled(CicrleConfigs configs, int most);
    /// The image with up to `most` shapes, noise, cuts and changes of type.
    cv::Mat spoiled(const cv::Mat& image, int most);
    /// Some other size, type or element, or no data at all.
    cv::Mat spoiled(const cv::Mat& matrix);
    /// Records added, taken away, moved and bent.
    std::vector<Corner> spoiled(std::vector<Corner> corners, int most);
    /// Up to `most` members changed.
    CircleMarkerExtractor spoiled(CircleMarkerExtractor extractor, int most);

    /// Distortion coefficients, as many as OpenCV takes or not, and with as many channels.
    cv::Mat distortion();

  private:
    void spoilOne(CicrleConfigs& configs);
    void spoilOne(cv::Mat& image);
    void spoilOne(std::vector<Corner>& corners);
    void spoilOne(Corner& corner);

    FuzzedDataProvider data_;
};

}  // namespace kestrune::fuzz
