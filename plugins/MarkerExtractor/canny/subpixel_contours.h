// SPDX-License-Identifier: Apache-2.0
//
// Closed edge contours with sub-pixel points: a Canny detector on 16-bit derivatives, a filter that keeps the inner
// side of closed edge loops, and a quadratic facet fit of the gradient magnitude at every surviving pixel.
#pragma once

#include <opencv2/core.hpp>
#include <vector>

#include "canny/edge_suppression.h"
#include "canny/strip_threads.h"
#include "canny/subpixel_refinement.h"
#include "checks/drops.h"
#include "kestrune/MarkerExtractor/records.h"

namespace kestrune {

/// One tap in grey levels: a step of height h gives a derivative of about 128 h.
inline constexpr double kDerivativeGain = 128.0;

/// Derivative kernel, `CV_16SC1`, (2 r + 1) x 1, with r = 3 sigma to the nearest integer.
///
/// Its tap at distance i is proportional to i (1 - exp(-i^2 / (2 sigma^2))), odd about the centre, with a half sum of
/// 128 before rounding. That is not the derivative of a Gaussian: the taps vanish near the centre and grow towards the
/// ends of the support, which measures the step between the two sides and not the slope between them.
///
/// @param sigma  px, above 1/6.
/// @throws cv::Exception if `sigma` leaves one tap, or more than 2000 (which all round to zero).
cv::Mat makeEdgeDerivativeKernel(double sigma);

/// Cuts an image into strips of equal width; the last one takes the remainder. As many strips as hardware threads, but
/// never more than columns and at least one.
///
/// @param concurrency  `std::thread::hardware_concurrency()`, which may be 0.
std::vector<EdgeStrip> cutIntoStrips(int columns, unsigned concurrency);

/// Indices of the contours that are the inner side of a closed edge loop, in order: long enough, with a parent, and
/// with no child that is long enough. Deeper descendants are not looked at.
///
/// @param hierarchy  next, previous, first child, parent of each contour, as `cv::findContours` fills it.
/// @param minLength  px.
std::vector<int> selectInnerContours(const std::vector<std::vector<cv::Point>>& pixelContours,
                                     const std::vector<cv::Vec4i>& hierarchy, int minLength);

/// The whole front end.
///
/// @param image          `CV_8UC1`, not changed.
/// @param sigma          of the Gaussian and of the derivative kernel, px, above 1/6.
/// @param aperture       side of the Gaussian kernel, odd, independent of `sigma`.
/// @param low,high       hysteresis thresholds, grey levels.
/// @param contours       resized to the number of surviving contours.
/// @param minLength      least number of pixels of a contour.
/// @param retrievalMode  mode of `cv::findContours`; the filter needs one that fills the tree (`cv::RETR_TREE`).
/// @param threaded       one thread for each hardware thread, on strips of columns. Edges end at the seams between the
///                       strips, and smoothing rounds differently there, so that the result differs from that of an
///                       unthreaded call; for a given number of hardware threads it is always the same.
/// @throws cv::Exception     for a setting that the front end cannot work with.
/// @throws std::system_error if a thread cannot be started, after those that run have ended.
void detectSubpixelContours(const cv::Mat& image, double sigma, unsigned aperture, int low, int high,
                            std::vector<SubpixelContour>& contours, int minLength, int retrievalMode, bool threaded);

/// The settings of a call, as above, checked.
struct EdgeSettings {
    /// @throws cv::Exception for what the front end cannot work with.
    EdgeSettings(double sigma, long long aperture, int low, int high, int minLength, int retrievalMode, bool threaded);

    /// Of the simple path, whose least length is in pixels of the image before its reduction.
    ///
    /// @param configs  with a `scale` that is not 0.
    explicit EdgeSettings(const CicrleConfigs& configs);

    double sigma;
    int aperture;
    int lowScaled, highScaled;  ///< in units of the derivatives
    int minLength, retrievalMode;
    bool threaded;
    cv::Mat kernel;  ///< of the derivatives
};

/// The same, and what was dropped.
///
/// @param image  `CV_8UC1`; not looked at any more.
/// @param drops  appended to: contours that are no inner side of a loop (the outer side of one that is kept does not
///               count), and lines of pixels above `low` none of which reaches `high`. May be null.
void detectSubpixelContours(const cv::Mat& image, const EdgeSettings& settings, std::vector<SubpixelContour>& contours,
                            Drops* drops);

}  // namespace kestrune
