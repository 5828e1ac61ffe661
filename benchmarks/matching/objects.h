// SPDX-License-Identifier: Apache-2.0
//
// Markers on objects of all shapes.
#pragma once

#include <vector>

#include "draws.h"
#include "kestrune_scene/scene.h"
#include "kinds.h"
#include "rigs.h"

namespace kestrune::bench {

struct TrueObject {
    std::vector<scene::Disc> discs;  ///< in the frame of the left camera
    std::vector<double> radii;       ///< nominal ones; empty where sizes are continuous
    std::vector<int> columns;        ///< of each disc of a grid on a plane; empty for all else
    int columnCount = 0;
};

/// An object about the rig's target. Of fewer markers than asked for where more would touch each other.
TrueObject makeObject(const SceneKind& kind, const TrueRig& rig, Draws& draws);

}  // namespace kestrune::bench
