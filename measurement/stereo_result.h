// SPDX-License-Identifier: Apache-2.0
//
// What one exposure of the camera pair gives.
#pragma once

#include <array>
#include <opencv2/core.hpp>
#include <optional>
#include <string>
#include <vector>

#include <kestrune/MarkerMetrology.h>
#include "pair_explanation.h"
#include "polarity.h"
#include "refined_pairs.h"
#include "stereo_quality.h"

namespace kestrune::measure {

/// How far a pair can be trusted.
struct PairTrust {
    double probability;  ///< that both show one marker
    PairCues cues{};
};

/// A matched marker. What the branch does not measure is NaN. The frame of `point` and `normal` is the left
/// camera's or, with `outputRectified`, the rectified left one; the unit is that of the calibration.
struct StereoMarker {
    /// Undistorted px of each eye (rectified px with `cornersRectified`): the image of the disc's centre on path
    /// radial and complex and of a match by probability, otherwise the centre of the rim's image.
    std::array<cv::Point2d, 2> pixel;
    std::array<cv::RotatedRect, 2> rim;  ///< the ellipses in the same pixels
    std::array<int, 2> number;           ///< places among the markers of each eye
    std::array<Polarity, 2> polarity{};  ///< path complex only
    cv::Vec3d point;
    cv::Vec3d normal;  ///< unit, towards the cameras; on path simple only of a disc that `estimate` tells of
    double radius;     ///< likewise
    Residuals residuals{};
    std::optional<PairEstimate> estimate{};  ///< of a measurement that refines, or matches by probability
    std::optional<PairTrust> trust{};        ///< of one that matches by probability
};

/// Two markers that may be one, and others that each of them may be one with.
struct AmbiguousPair {
    StereoMarker marker;
    std::vector<StereoMarker> rivals;  ///< probable first; what only cues tell is not known of them
    Decider decider = Decider::nothing;
};

/// What a match by probability tells beyond its sure pairs.
struct TrustedResult {
    StereoMatch match;                     ///< in the frame of the pixels' rig; indices are numbers of markers
    std::vector<AmbiguousPair> ambiguous;  ///< in the order of the left markers
};

struct StereoResult {
    std::vector<StereoMarker> markers;                      ///< in the order of the library's pairs
    std::array<std::vector<UnmatchedMarker>, 2> unmatched;  ///< the others of each eye
    std::array<std::size_t, 2> found{};                     ///< markers of each eye, matched or not
    /// Of all markers of each eye that were refined, or could not be; empty where neither refinement nor a match by
    /// probability was asked for.
    std::array<std::vector<MarkerEstimate>, 2> estimates{};
    bool refined = false;                  ///< whether that was asked for; otherwise `estimates` are as the path found
    std::optional<TrustedResult> trusted;  ///< of a match by probability; `markers` are then the sure pairs alone
    /// Why the exposure gives no points; `markers`, if there are any, are then not to be trusted. Empty: nothing.
    std::string failure;
    std::string doubt;  ///< what to look at in an exposure that gives points; empty: nothing
};

}  // namespace kestrune::measure
