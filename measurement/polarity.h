// SPDX-License-Identifier: Apache-2.0
//
// Whether a marker is brighter or darker than its ground. The library keeps markers of both kinds apart while it
// searches, but its records do not tell which is which: the image does.
#pragma once

#include <opencv2/core.hpp>

#include <kestrune/MarkerMetrology.h>

namespace kestrune::measure {

enum class Polarity {
    unknown,  ///< not asked for, or the same on both sides of the rim
    bright,   ///< brighter inside
    dark,     ///< darker inside
};

/// Compares the mean grey on two ellipses, one just inside and one just outside the rim, so that the two rims of a ring
/// are told apart as well.
///
/// @param image   `CV_8UC1` or `CV_8UC3`.
/// @param rim     px of the image or, with `camera`, of the image without that camera's lens distortion.
/// @param camera  may be empty.
Polarity polarityOf(const cv::Mat& image, const cv::RotatedRect& rim, const Camera& camera = {});

/// "bright", "dark" or nothing.
const char* nameOf(Polarity polarity);

}  // namespace kestrune::measure
