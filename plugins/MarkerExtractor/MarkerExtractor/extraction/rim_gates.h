// SPDX-License-Identifier: Apache-2.0
//
// Is a thin closed edge the rim of a marker? Two stages ask: the first on whole pixels, of every candidate, is cheap
// and tells on which side the rim is bright; the second, of what is left after like rims became one, measures to a
// fraction of a pixel. Bright and dark markers pass by mirrored tests and are kept apart throughout.
#pragma once

#include <array>
#include <cstdint>
#include <opencv2/core.hpp>
#include <vector>

#include "MarkerExtractor/extraction/marker_fit.h"
#include "ellipsedetection/conic_record.h"
#include "kestrune/MarkerExtractor/records.h"

namespace kestrune {

/// What a rim was refused for, in the order of the gates; the length is asked again of the distinct pixels.
enum class RimGate {
    kNone,
    kLength,     ///< number of pixels
    kSize,       ///< axes of the ellipse
    kPlace,      ///< centre at the border of the image
    kAxisRatio,  ///< shorter over longer axis
    kResidual,   ///< RMS of the conic over the contour
    kGradient,   ///< the gradient crosses the rim both ways
    kContrast,   ///< the side that the gradient names as bright is not
    kHull,       ///< hull over ellipse area
    kPoints,     ///< too few refined points, or not finite
    kFinalSize,  ///< from here on of the refined ellipse
    kFinalPlace,
    kFinalAxisRatio,
    kFinalResidual,
};

/// Full-size images that the gates read.
struct RimImages {
    cv::Mat blur16U;  ///< `CV_16UC1`
    cv::Mat grad;     ///< `CV_32FC1` without gaps between the rows
    cv::Mat dx, dy;   ///< `CV_32FC1`
};

struct RimVerdict {
    RimGate refusedBy = RimGate::kNone;
    double measured = 0;            ///< value of the gate that refused
    PolarEllipse ellipse{};         ///< as far as it was filled
    std::vector<cv::Point> points;  ///< of an accepted rim: its distinct pixels in raster order, no longer a path

    bool accepted() const { return refusedBy == RimGate::kNone; }
};

/// Lists whose storage goes from candidate to candidate.
struct RimScratch {
    RimScratch();
    std::vector<cv::Point> hull;
    std::vector<std::uint64_t> keys;
};

/// First stage: number of pixels, ellipse, residual, sign and strength of the step across the rim, and hull.
///
/// @param contour  px of the full image, at least two px from its border.
/// @param configs  read are `minDiameter`, `maxDiameter`, `minAxisRatio`, `maxFitResidual`.
RimVerdict judgeRim(const std::vector<cv::Point>& contour, const RimImages& images, const CicrleConfigs& configs,
                    RimScratch& scratch);

struct MarkerVerdict {
    RimGate refusedBy = RimGate::kNone;
    double measured = 0;
    Corner marker;  ///< as far as it was filled; complete, but for `id`, if accepted

    bool accepted() const { return refusedBy == RimGate::kNone; }
};

/// Second stage: refinement on the gradient, undistortion, the final ellipse and its gates. Unlike in the first stage
/// `minDiameter` counts as it stands, and the product of the axes must reach four times its square: a round marker
/// passes from twice `minDiameter` on.
///
/// @param configs  read are `skipUndistort`, `minDiameter`, `minAxisRatio`, `maxFitResidual`.
/// @param lens     read only if `configs.skipUndistort` is false.
/// @throws cv::Exception from the undistortion, for matrices of wrong size.
MarkerVerdict measureRim(const std::vector<cv::Point>& points, const RimImages& images, const CicrleConfigs& configs,
                         const LensModel& lens);

/// The markers of one call with what the test for nested rims needs of each, in one order.
struct RimMarkers {
    std::vector<Corner> corners;
    std::vector<cv::RotatedRect> rects;
    std::vector<std::array<cv::Point2f, 4>> extremePoints;  ///< of smallest x, smallest y, largest x, largest y
    std::vector<bool> polarity;
};

/// Adds a marker unless one of the same polarity stands for it. From the last to the first: where the centre of a known
/// marker lies in the new one's ellipse and all its extreme points do, the new one is dropped: the inner of two nested
/// rims stands. Where the two only overlap, the better fit stays, on a tie the new one. What has lost to the new one is
/// gone, even if that loses to another one afterwards.
///
/// @param marker  with at least one point in its contour.
/// @return whether the marker was added.
bool admitRim(Corner&& marker, bool brightInside, RimMarkers& markers);

}  // namespace kestrune
