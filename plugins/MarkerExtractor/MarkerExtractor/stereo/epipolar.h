// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <opencv2/core.hpp>

namespace kestrune {

/// First-order squared distance of a pair from its epipolar constraint, px^2:
/// (x'^T F x)^2 / ((F x)_0^2 + (F x)_1^2 + (F^T x')_0^2 + (F^T x')_1^2). P. Sampson, 1982.
double sampsonDistance(const cv::Matx33d& fundamental, const cv::Point2f& left, const cv::Point2f& right);

/// The same.
///
/// @throws cv::Exception for a matrix that is not 3 by 3, `CV_64FC1`, as an empty one.
double sampsonDistance(const cv::Mat& fundamental, const cv::Point2f& left, const cv::Point2f& right);

}  // namespace kestrune
