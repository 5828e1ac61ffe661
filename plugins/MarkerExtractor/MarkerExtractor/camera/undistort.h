// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <opencv2/core.hpp>

#include "kestrune/MarkerExtractor/records.h"

namespace kestrune {

/// Moves `x`, `y` and `contour` of a record from the pixels of a camera to those of the same camera without lens
/// distortion. No other field changes. Centre and contour travel in one call of `cv::undistortPoints`, so that both see
/// the same mapping.
///
/// @param cameraMatrix  3 by 3, as `cv::undistortPoints` takes it; also its `P`, which keeps the result in pixels.
/// @param distCoeffs    as `cv::undistortPoints` takes it; empty for none.
/// @throws cv::Exception from `cv::undistortPoints`; the record is unchanged then.
void undistortCorner(Corner& corner, const cv::Mat& cameraMatrix, const cv::Mat& distCoeffs);

}  // namespace kestrune
