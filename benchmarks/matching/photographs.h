// SPDX-License-Identifier: Apache-2.0
//
// Scenes as the cameras take them: rendered through lenses, with blur, noise and what is no marker; found by a path and
// refined.
#pragma once

#include <cstdint>

#include "scenes.h"

namespace kestrune::bench {

/// The markers are those of a path on the images, refined. Their sigmas are as they come out.
MatchingScene makePhotographedScene(const SceneKind& kind, std::uint64_t seed);

}  // namespace kestrune::bench
