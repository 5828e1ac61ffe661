// SPDX-License-Identifier: Apache-2.0
//
// Whether scenes and scores are what they say.
#pragma once

namespace kestrune::bench {

/// Prints what was measured of the scenes, and what it should be. @returns whether all of it is.
bool checkScenes();

}  // namespace kestrune::bench
