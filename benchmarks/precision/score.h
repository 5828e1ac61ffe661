// SPDX-License-Identifier: Apache-2.0
//
// Detections against the truth and the bound.
#pragma once

#include <array>
#include <string>
#include <vector>

#include "detectors.h"

namespace kestrune::bench {

constexpr std::size_t kStatuses = 7;  ///< of `RefinementStatus`

/// Sums over the markers of a kind, of one detector.
struct Score {
    int markers = 0, found = 0, wrong = 0;       ///< `wrong`: detections of nothing, or of a marker that has one
    std::array<int, kStatuses> statuses{};       ///< by what became of them; nothing without refinement
    int judged = 0;                              ///< found, and refined if it was to be
    int radii = 0;                               ///< those of them whose radius is told
    double squares = 0, along = 0;               ///< of the centre's error; the error towards `direction`; px
    cv::Point2d sum;                             ///< of the centre's error, px
    double radiusSum = 0, radiusSquares = 0;     ///< of the mean half axis' error
    int beyond = 0;                              ///< centres farther off than 4.5 of their sigmas
    double normalisedCentre = 0;                 ///< sum over both coordinates of (error / sigma)^2
    double normalisedRadius = 0, chiSquare = 0;  ///< the same of the mean half axis; of the five with their covariance

    double recall() const { return markers > 0 ? static_cast<double>(judged) / markers : 0; }
    double rms() const;  ///< of one coordinate of the centre, px
};

/// What can be known of a kind.
struct Limits {
    double centre = 0, radius = 0;  ///< RMS of one coordinate, and of the mean half axis, px
    double centreExact = 0;         ///< the same if grey levels were not rounded
    double leastAxis = 0;           ///< sigma of the minor half axis as a share of it, about
};

struct Row {
    Kind kind;
    std::string detector;
    bool refined = false;
    Score score;
    Limits limits;

    /// Whether errors are small enough for a bound that is one of small errors.
    bool isBounded() const { return limits.leastAxis < 0.1; }
    double ratio() const { return score.rms() / limits.centre; }
    double radiusError() const;       ///< mean, px
    double normalisedCentre() const;  ///< RMS of error over sigma
    double normalisedRadius() const;
    double normalisedEllipse() const;  ///< root of the mean of chi-square over its five degrees of freedom
};

/// All detectors on `markers` markers of a kind.
std::vector<Row> judge(const Kind& kind, const std::vector<Detector>& detectors, int markers, unsigned seed);

}  // namespace kestrune::bench
