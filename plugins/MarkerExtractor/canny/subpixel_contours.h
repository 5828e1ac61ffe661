// SPDX-License-Identifier: Apache-2.0
//
// Closed edge contours with sub-pixel points: a Canny detector on 16-bit derivatives, a filter that keeps the inner
// side of closed edge loops, and a quadratic facet fit of the gradient magnitude at every surviving pixel.
#pragma once

#include <opencv2/core.hpp>
#include <vector>

#include "checks/drops.h"

namespace kestrune {

/// One contour: three arrays of equal length in contour order. Radial contours fill `points` only.
struct SubpixelContour {
    std::vector<cv::Point2f> points;  ///< px
    std::vector<float> response;      ///< gradient magnitude: about the height of the step, grey levels
    std::vector<float> direction;     ///< angle of the edge's normal, radians in [0, 2 pi)
};

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

/// A strip of columns that one thread works on.
struct EdgeStrip {
    int firstColumn;
    int width;
};

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

/// Moves every contour pixel to the extremum of a quadratic facet of the gradient magnitude across the edge, if that
/// lies within half a pixel in both axes; otherwise the pixel stays. The line point is that of C. Steger, "An unbiased
/// detector of curvilinear structures" (1998), on a 3 by 3 facet.
///
/// @param dx,dy     `CV_16SC1` derivatives, scaled by 128.
/// @param contours  resized to the number of pixel contours; every point is independent of the thread that computes it.
void refineContours(const cv::Mat& dx, const cv::Mat& dy, const std::vector<std::vector<cv::Point>>& pixelContours,
                    std::vector<SubpixelContour>& contours);

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

/// The settings of a call, as above.
struct SubpixelSettings {
    double sigma;
    unsigned aperture;
    int low, high, minLength, retrievalMode;
    bool threaded;
};

/// The same, and what was dropped.
///
/// @param drops  appended to: contours that are no inner side of a loop (the outer side of one that is kept does not
///               count), and lines of pixels above `low` none of which reaches `high`. May be null.
void detectSubpixelContours(const cv::Mat& image, const SubpixelSettings& given, std::vector<SubpixelContour>& contours,
                            Drops* drops);

}  // namespace kestrune
