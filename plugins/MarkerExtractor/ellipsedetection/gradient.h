// SPDX-License-Identifier: Apache-2.0
//
// Edges of a small window, with a threshold that the window sets for itself: gradient, threshold from a percentile of
// its histogram, and a mask of the pixels that are maxima across the edge.
//
// All three take columns eight at a time, and the columns that are left over one at a time, and treat the two kinds a
// little differently; each says how. `gradient_plain.h` states the same rules one pixel at a time.
#pragma once

#include <opencv2/core.hpp>

#include "ellipsedetection/edge_mask.h"

namespace kestrune {

/// Central differences and their magnitude, in units of `blur16U`. The outermost ring of the three images is not
/// written.
///
/// In the leftover columns the difference is halved as a whole number, towards zero: odd differences lose half a unit.
///
/// @param blur16U  `CV_16UC1`.
/// @param img_grad,img_dx,img_dy  results, `CV_32FC1` of the same size; made so where they are not.
/// @param min,max  results: least and largest magnitude; the largest float and its negative for a window without
///                 inner pixels.
/// @throws cv::Exception `cv::Error::StsAssert` for another type, before anything is written.
void calc_gradient(const cv::Mat& blur16U, cv::Mat& img_grad, cv::Mat& img_dx, cv::Mat& img_dy, float& min, float& max);

/// The magnitude below which the given share of the inner pixels lies, to a 256th of the range.
///
/// A magnitude's bin is rounded to the nearest in grouped columns and cut off in the leftover ones.
///
/// @param img_grad    `CV_32FC1`.
/// @param min,max     range of its inner pixels.
/// @param percentile  0 to 1. From 1 on, and without inner pixels, there is no such magnitude, and the result is the
///                    denormal whose bits are the number of rows: in effect zero, every step counts as an edge.
/// @throws cv::Exception `cv::Error::StsAssert` for another type.
float calc_stable_edge_threshold(const cv::Mat& img_grad, float min, float max, float percentile);

}  // namespace kestrune
