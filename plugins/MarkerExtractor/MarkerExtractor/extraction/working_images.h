// SPDX-License-Identifier: Apache-2.0
//
// The images that a path works on, in the extractor's scratch storage.
#pragma once

#include <opencv2/core.hpp>
#include <optional>
#include <vector>

#include "MarkerExtractor/extraction/marker_fit.h"
#include "kestrune/MarkerExtractor.h"

namespace kestrune {

/// An image over a scratch list, which is resized only where its size differs: at a fixed image size nothing is
/// allocated after the first call.
template <typename T>
cv::Mat wrapScratch(std::vector<T>& storage, const cv::Size& size, int type) {
    const std::size_t count = static_cast<std::size_t>(size.width) * static_cast<std::size_t>(size.height);
    if (storage.size() != count) storage.resize(count);
    return {size, type, storage.data()};
}

/// The grey image at full size, as an image of its own: a host's image may be a window of a larger one, and no pixel
/// outside that window may have a say in the result. Shares the pixels of a grey image.
cv::Mat greyOf(const cv::Mat& image, CircleMarkerExtractor& extractor);

/// The grey image reduced by a whole number; shares its pixels where that is 1.
cv::Mat reducedImage(const cv::Mat& grey, int scale, CircleMarkerExtractor& extractor);

/// 0: the left camera; any other index: the right one. Refuses, by the member's name, what OpenCV must not be given
/// where `configs` asks for undistortion; what it refuses itself is left to it and to the first contour.
///
/// @return none where `configs` does not ask for undistortion.
std::optional<LensModel> lensOf(const CircleMarkerExtractor& extractor, int cameraIndex, const CicrleConfigs& configs);

}  // namespace kestrune
