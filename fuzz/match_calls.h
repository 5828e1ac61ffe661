// SPDX-License-Identifier: Apache-2.0
//
// Markers of both eyes, a rig and options as a host may hand them over: scenes as cameras see them, crowds of alike
// markers, and any numbers at all; then a little of them spoiled.
#pragma once

#include <kestrune/MarkerMetrology/matching.h>

#include <array>
#include <vector>

#include "estimates.h"

namespace kestrune::fuzz {

constexpr int kMostMarkers = 40;
inline const cv::Size kImage{2448, 2048};

struct MatchCall {
    std::array<std::vector<MarkerEstimate>, 2> markers;
    RigMatrices rig;
    MatchOptions options;

    StereoMatch match() const { return matchMarkers(markers[0], markers[1], rig, options); }
    /// Of lengths.
    void setUnit(double unit);
};

/// About each axis by up to so many radians.
cv::Matx33d drawnTurn(Input& input, double most);
/// A path's record of any numbers.
Corner drawnCorner(Input& input);

MatchCall drawnCall(Input& input);
/// One of the options changed.
void spoil(MatchOptions& options, Input& input);

}  // namespace kestrune::fuzz
