// SPDX-License-Identifier: Apache-2.0
//
// What one eye measures of an object's markers: ellipses with noise, without those that it cannot see, and among others
// that are none.
#pragma once

#include <utility>
#include <vector>

#include "draws.h"
#include "kestrune/MarkerMetrology/refinement.h"
#include "kestrune_scene/scene.h"
#include "kinds.h"

namespace kestrune::bench {

struct Sight {
    std::vector<MarkerEstimate> markers;
    /// Number of the disc; -1 for a false detection, -2 - number for one that lies on the disc and is off.
    std::vector<int> identity;
};

/// Numbers of the discs that an eye could see: turned to it, on its image, large enough and behind no other.
std::vector<int> visibleDiscs(const scene::PinholeCamera& camera, const std::vector<scene::Disc>& discs);

/// Takes out what is not seen for other reasons: each with this probability, or the same share in one region.
void hide(std::vector<int>& seen, const scene::PinholeCamera& camera, const std::vector<scene::Disc>& discs,
          double share, bool inOnePlace, Draws& draws);

/// Measures these discs and as many false ones as the kind says, in any order.
Sight look(const SceneKind& kind, const scene::PinholeCamera& camera, const std::vector<scene::Disc>& discs,
           const std::vector<int>& seen, Draws& draws);

}  // namespace kestrune::bench
