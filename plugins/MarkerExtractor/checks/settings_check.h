// SPDX-License-Identifier: Apache-2.0
//
// What a path cannot work with is refused here, before anything is written, with a `cv::Exception` of code
// `cv::Error::StsBadArg` whose text names the setting and its value.
#pragma once

#include <opencv2/core.hpp>
#include <string>
#include <vector>

#include "kestrune/MarkerExtractor/records.h"

namespace kestrune {

constexpr int kLeastThresholdBlock = 3;  ///< the adaptive threshold has no block of one pixel

/// Raises the exception: "<setting>: <what is wrong>".
[[noreturn]] void refuseSetting(const std::string& setting, const std::string& complaint);

/// The image must be two-dimensional.
void requirePlane(const cv::Mat& image);

/// The image must be two-dimensional and `CV_8UC1`.
void requireGreyImage(const cv::Mat& image);

/// The image must be two-dimensional and `CV_8UC1` or `CV_8UC3`.
void requireGreyOrColourImage(const cv::Mat& image);

/// The result list of a path must be empty on entry.
void requireEmptyList(const std::vector<Corner>& corners);

/// The image must be two-dimensional and `CV_8UC1`, `CV_8UC3` or `CV_8UC4`.
void requireByteImage(const cv::Mat& image);

/// `scale` must be 1 or more and leave at least one pixel in each direction.
void requireScale(int scale, const cv::Size& imageSize);

/// Sides of a Gaussian kernel: odd, from `least` on, and not so large that one blur keeps the host waiting for minutes.
void requireAperture(long long aperture, int least);

/// `sigma` of the sub-pixel contours: its derivative kernel must have more than one tap and less than 2000.
void requireEdgeSigma(double sigma);

/// `sigma` of the radial contours and of the edge-based path: finite and not below 0, where 0 lets the Gaussian of the
/// radial contours follow the aperture and smooths nothing on the edge-based path.
void requireBlurSigma(double sigma);

/// Directions that a host may have filled in: none longer than 1, for the searches along them check no more than that
/// steps of that length stay on the image.
void requireUnitVectors(const std::vector<cv::Point2f>& directions, const char* name);

/// The constant of an adaptive threshold, within what OpenCV can negate. Beyond 256 grey levels no, or every, pixel
/// passes anyway.
double usableThresholdC(int thresholdC);

}  // namespace kestrune
