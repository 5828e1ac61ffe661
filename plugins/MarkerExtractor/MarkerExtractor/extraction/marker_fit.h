// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <opencv2/core.hpp>

#include "kestrune/MarkerExtractor/records.h"

namespace kestrune {

/// The camera whose distortion is removed from a contour before the fit.
struct LensModel {
    cv::Mat intrinsic;   ///< 3 by 3
    cv::Mat distortion;  ///< OpenCV's order
};

/// Fills the block of a marker from `ellipse` to `scatter` from its contour and the ellipse fitted to it.
void fillConic(Corner& marker, const cv::RotatedRect& rect);

}  // namespace kestrune
