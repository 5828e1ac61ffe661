// SPDX-License-Identifier: Apache-2.0
//
// What both eyes measure of an object's markers, with the truth.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "eyes.h"
#include "kestrune/MarkerMetrology.h"
#include "kestrune/MarkerMetrology/matching.h"
#include "kestrune_scene/scene.h"
#include "kinds.h"
#include "staging.h"

namespace kestrune::bench {

struct MatchingScene {
    std::string layout;
    SceneKind kind;
    std::array<std::vector<MarkerEstimate>, 2> markers;  ///< in any order
    std::array<std::vector<int>, 2> identity;            ///< number of the true marker; see `Sight`
    RigMatrices rig;                                     ///< as the matcher is told
    std::vector<double> radii;                           ///< nominal ones; empty where sizes are continuous
    std::array<double, 2> depth{};                       ///< a range that holds all markers, left camera's z
    double moved = 0;                ///< RMS of the true pairs' distances from the epipolar lines of `rig`, px
    scene::Rig truth;                ///< the cameras as they are
    std::vector<scene::Disc> discs;  ///< by number

    /// The marker that a detection lies on, whether well measured or not; -1 for none.
    int markerOf(std::size_t eye, int detection) const;

    /// Markers of the left list whose markers are in the right list too.
    int common() const;
};

/// The same for the same seed.
MatchingScene makeScene(const SceneKind& kind, std::uint64_t seed);

/// Of what both eyes measured before a stage.
MatchingScene sceneOf(const Stage& stage, std::array<Sight, 2> sights, std::uint64_t seed);

std::uint64_t sceneSeed(std::uint64_t series, int number);

/// Of a trouble's scene number `number` in a series: kind and scene.
MatchingScene makeScene(Trouble trouble, std::uint64_t series, int number);

}  // namespace kestrune::bench
