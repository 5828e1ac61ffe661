// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <opencv2/core.hpp>

namespace kestrune {

/// A threshold as squared magnitudes are compared with it: a negative one counts as 0, and a square that leaves 32 bits
/// as the largest 32-bit number.
int saturatedSquare(int threshold);

/// Squared gradient magnitudes dx^2 + dy^2 of `count` pixels in 32 bits. The plain statement ...
void squaredMagnitudesPlain(const short* dx, const short* dy, int* magnitudes, int count);
/// ... and eight pixels at a time, with the same numbers for every input.
void squaredMagnitudesVector(const short* dx, const short* dy, int* magnitudes, int count);

/// Non-maximum suppression and hysteresis.
///
/// @param src    gives the size only.
/// @param dx,dy  `CV_16SC1` derivatives of that size.
/// @param low    thresholds in units of the derivatives; a pixel is a candidate above `low` and a seed above `high`.
///               Negative ones count as 0, and a square that leaves 32 bits as the largest 32-bit number.
/// @param edges  `CV_8UC1`, 255 on an edge and 0 elsewhere; written in place if it has the right size and type.
void suppressAndLinkEdges(const cv::Mat& src, const cv::Mat& dx, const cv::Mat& dy, int low, int high, cv::Mat& edges);

}  // namespace kestrune
