// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <opencv2/core.hpp>

#include "kestrune/MarkerExtractor/records.h"

namespace kestrune {

/// Centre and contour of a record as one list of points, n x 1 `CV_64FC2` with n = contour size + 1, the centre first:
/// so that both travel through one call of `cv::undistortPoints` and see the same mapping.
cv::Mat packPoints(const Corner& corner);

/// Writes such a list back into `x`, `y` (in double) and `contour` (rounded to single precision).
void unpackPoints(const cv::Mat& points, Corner& corner);

/// Moves `x`, `y` and `contour` of a record from the pixels of a camera to those of the same camera without lens
/// distortion. No other field changes.
///
/// @param cameraMatrix  3 by 3, as `cv::undistortPoints` takes it; also its `P`, which keeps the result in pixels.
/// @param distCoeffs    as `cv::undistortPoints` takes it; empty for none.
/// @throws cv::Exception from `cv::undistortPoints`; the record is unchanged then.
void undistortCorner(Corner& corner, const cv::Mat& cameraMatrix, const cv::Mat& distCoeffs);

}  // namespace kestrune
