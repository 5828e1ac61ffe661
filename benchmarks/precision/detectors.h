// SPDX-License-Identifier: Apache-2.0
//
// What finds markers: the paths, each with and without refinement, true ellipses with an error, and OpenCV's detectors.
#pragma once

#include <kestrune/MarkerMetrology.h>

#include <functional>
#include <limits>
#include <optional>
#include <string>
#include <vector>

#include "scene.h"

namespace kestrune::bench {

/// What a detector says of one marker, in px without lens distortion.
struct Found {
    cv::Point2d centre;
    double meanHalfAxis = std::numeric_limits<double>::quiet_NaN();  ///< px; NaN where it does not tell
    std::optional<MarkerEstimate> estimate = {};                     ///< after refinement
};

struct Findings {
    std::vector<Found> found;
    std::vector<Found> refined;  ///< the same markers in the same order; empty for a detector that is not refined
};

struct Detector {
    std::string name;
    std::function<Findings(const Scene& scene, std::mt19937_64& random)> find;
};

/// True ellipses with a normally distributed error in each of their five numbers.
Detector perturbedTruth(double error);

/// The edge-based, radial, sub-pixel and fast path, with the ready settings opened for the kind as its user would.
std::vector<Detector> pathDetectors();

/// OpenCV's blobs, and its ellipse fit to contours at half height.
std::vector<Detector> rivalDetectors();

/// The records of `corners` as they are and refined on the scene's image.
///
/// @param undistorted  the records are in px without lens distortion.
Findings findingsOf(const Scene& scene, const std::vector<Corner>& corners, bool undistorted);

}  // namespace kestrune::bench
