// SPDX-License-Identifier: Apache-2.0
//
// Is a closed contour a marker? A marker is a bright round patch whose image is an ellipse, and the gates ask in
// different ways whether the contour is an ellipse of a believable size. One pure function answers, so that the path,
// the tests and whoever wants to show why a contour was refused all share it.
#pragma once

#include <cstdint>
#include <opencv2/core.hpp>
#include <vector>

#include "MarkerExtractor/extraction/marker_fit.h"
#include "kestrune/MarkerExtractor/records.h"

namespace kestrune {

/// What a contour was refused for.
enum class Gate {
    kNone,
    kArea,
    kCompactness,
    kFit,
    kEccentricity,
    kCircularity,
    kConvexity,
    kFitError,
    kFitResidual,
    kPerimeter
};

struct GateVerdict {
    Gate refusedBy = Gate::kNone;
    double measured = 0;   ///< value of the gate that refused; 0 if none did
    Corner candidate;      ///< as far as it was filled; complete, but for `id`, if accepted
    cv::RotatedRect rect;  ///< fitted ellipse, once there is a fit
    float halfAxis = 0;    ///< larger half axis of the fit, px, in the pixels of the contour

    bool accepted() const { return refusedBy == Gate::kNone; }
};

/// Runs the gates in the order area, fit, eccentricity, circularity, convexity, shape. "Fit" refuses an ellipse that is
/// not finite, which the fit makes of some outlines of a few pixels and of coordinates that are not finite.
///
/// @param contour     closed, px, as the front end gave it. Area, perimeter and hull are those of this contour, also
///                    where the ellipse is fitted to undistorted points.
/// @param configs     the gates' bounds; a bound that is not a number refuses nothing.
/// @param lens        read only if `configs.skipUndistort` is false.
/// @param isFullSize  false for a contour in the pixels of an image that was reduced by `configs.scale`: the area gate
///                    then judges the area at full size, and the result is brought there.
/// @throws cv::Exception from the fit, for a contour of fewer than five points that came past the area gate, and from
///                    the undistortion, for matrices of wrong size.
GateVerdict judgeContour(const std::vector<cv::Point2f>& contour, const CicrleConfigs& configs, const LensModel& lens,
                         bool isFullSize);

/// The markers of one call, and the ellipse of each in the same order.
struct MarkerList {
    std::vector<Corner>& corners;
    std::vector<cv::RotatedRect> rects;
    std::int32_t nextId = 0;
};

/// What became of a candidate, and the id of the marker that it is or repeats.
struct Admission {
    enum Outcome { kAdded, kReplaced, kDropped } outcome;
    std::int32_t id;
};

/// Adds an accepted candidate, unless it repeats a marker of the list: one whose centre is nearer than the larger half
/// axis of either ellipse. A repetition takes the marker's place (and its id) only if it is both rounder and fits
/// better. Exactly equal centres count as two markers.
Admission admitMarker(GateVerdict& verdict, MarkerList& markers);

/// Root mean square distance of points from an ellipse, along the ray from its centre.
///
/// @param error       result, px; not a number for no points.
/// @param pointLimit  px.
/// @return            whether no point is farther from the ellipse than `pointLimit`; true for no points.
bool ellipseFitError(const cv::RotatedRect& ellipse, const std::vector<cv::Point2f>& points, double& error,
                     const double& pointLimit);
bool ellipseFitError(const cv::RotatedRect& ellipse, const std::vector<cv::Point>& points, double& error,
                     const double& pointLimit);

}  // namespace kestrune
