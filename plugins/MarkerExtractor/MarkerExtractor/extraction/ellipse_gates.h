// SPDX-License-Identifier: Apache-2.0
//
// Is a closed contour a marker? A marker is a bright round patch whose image is an ellipse, and the gates ask in
// different ways whether the contour is an ellipse of a believable size.
#pragma once

#include <cstdint>
#include <opencv2/core.hpp>
#include <optional>
#include <vector>

#include "MarkerExtractor/extraction/contour_verdict.h"
#include "MarkerExtractor/extraction/fit_error.h"
#include "MarkerExtractor/extraction/gate_rules.h"
#include "MarkerExtractor/extraction/marker_fit.h"
#include "kestrune/MarkerExtractor/records.h"

namespace kestrune {

/// Gates of `CircleExtractSimple`, in the order area, fit, eccentricity, circularity, convexity and shape: fit error
/// for sub-pixel contours, fit residual and perimeter for radial ones. A bound that is NaN refuses nothing.
struct SimpleGates : GateTable {
    explicit SimpleGates(const CicrleConfigs& configs);

    bool isRadial;
    double maxPointError;  ///< px; a contour without a point beyond it passes, whatever its fit error
};

/// Runs the gates.
///
/// @param contour  closed, as the front end gave it, in whose pixels the result is: those of the full image from
///                 radial contours, of a reduced one from sub-pixel contours. Area, perimeter and hull are those of
///                 this contour, also where the ellipse is fitted to undistorted points.
/// @param lens     none: the ellipse is fitted in the image as it is.
/// @throws cv::Exception from the fit, for a contour of fewer than five points that came past the area gate, and from
///                 the undistortion, for matrices of wrong size.
GateVerdict judgeContour(const std::vector<cv::Point2f>& contour, const SimpleGates& gates,
                         const std::optional<LensModel>& lens);

/// The markers of one call, and the ellipse of each in the same order: two lists, as the host gets them.
struct MarkerList {
    std::vector<Corner>& corners;
    std::vector<cv::RotatedRect> rects;
    std::int32_t nextId = 0;

    /// What a candidate is compared with first, px: side by side, since a corner fills a good part of a page.
    struct Place {
        double x, y;
        float halfAxis;
    };
    std::vector<Place> places = {};
};

/// Adds an accepted candidate, unless it repeats a marker of the list: one whose centre is nearer than the larger half
/// axis of either ellipse. A repetition takes the marker's place (and its id) only if it is both rounder and fits
/// better. Exactly equal centres count as two markers.
///
/// @param verdict  its candidate is moved into the list.
Admission admitMarker(GateVerdict& verdict, MarkerList& markers);

}  // namespace kestrune
