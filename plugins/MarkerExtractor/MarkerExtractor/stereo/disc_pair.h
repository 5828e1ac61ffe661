// SPDX-License-Identifier: Apache-2.0
//
// A marker is a flat circle. What a left and a right conic say of it, and how well they agree.
#pragma once

#include <opencv2/core.hpp>
#include <optional>

#include "MarkerExtractor/stereo/circle_pose.h"
#include "MarkerExtractor/stereo/conic_rig.h"
#include "MarkerExtractor/stereo/match_settings.h"
#include "MarkerExtractor/stereo/pair_verdicts.h"

namespace kestrune {

/// The circles of both eyes in the left frame, with the two normals that agree best.
struct DiscPair {
    CirclePose left, right;
    std::size_t leftNormal, rightNormal;  ///< chosen: index among the normals
    double agreement;                     ///< |cosine| of the angle between the chosen normals
    double radiusRatio;                   ///< smaller by larger

    cv::Vec3d normal() const;  ///< mean of the chosen ones, unit; zero if they cancel
    double radius() const { return (left.radius + right.radius) * 0.5; }
};

/// Chooses the normals; of combinations that agree equally well the first.
DiscPair pairDiscs(const CirclePose& left, const CirclePose& right);

/// Left and right marker of a candidate after their conics were compared.
struct DiscCandidate {
    int left, right;                ///< places in the lists
    std::optional<DiscPair> discs;  ///< none: refused
    double score = 0;               ///< how well the discs agree, 0 to 1 or NaN
    PairVerdict verdict;            ///< the gate that refused it, or what it competes by
};

/// A candidate's rough centre in the frame of either camera.
struct RoughCentre {
    int left, right;  ///< places in the lists
    cv::Vec3d inLeft, inRight;
};

/// Compares the discs that two conics imply: both must be a circle's image, both radii fit one nominal radius, if there
/// is any, and each other.
///
/// @throws std::runtime_error from `circlePose`; cv::Exception for a rig without fundamental matrix.
DiscCandidate compareDiscs(const RoughCentre& centre, const geometry::Conic& left, const geometry::Conic& right,
                           const ConicRig& rig, const ConicMatchSettings& settings);

}  // namespace kestrune
