// SPDX-License-Identifier: Apache-2.0
//
// What stands before the cameras, before anything is measured.
#pragma once

#include <array>
#include <cstdint>
#include <vector>

#include "kinds.h"
#include "objects.h"
#include "rigs.h"

namespace kestrune::bench {

struct Stage {
    SceneKind kind;
    TrueRig told, truth;  ///< as calibrated, and as it is
    TrueObject object;
    std::array<std::vector<scene::Disc>, 2> shown;  ///< discs before each eye: the object's, or those of another
    std::array<std::vector<int>, 2> seen;           ///< of them, those that the eye sees
    std::array<int, 2> firstNumber{};               ///< of the discs before each eye
};

/// The same for the same seed.
Stage makeStage(const SceneKind& kind, std::uint64_t seed);

/// The rig as the matcher is told.
RigMatrices toldRig(const Stage& stage, std::uint64_t seed);

/// Streams of a scene's seed.
enum Stream : std::uint64_t { kRig = 10, kObject, kHidden, kLeft, kRight, kOther, kTurn, kPhotograph };

}  // namespace kestrune::bench
