// SPDX-License-Identifier: Apache-2.0
//
// What pairs markers: by probability, and the three matchers without one.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "scenes.h"

namespace kestrune::bench {

/// What a matcher is told beside the markers.
struct Told {
    bool radii = false, depth = false;
    double sure = 0.999;
    bool estimateSigmas = true;
};

/// What a matcher says of a scene. Pairs of one that knows no probabilities have 1 and are all sure.
struct Matched {
    StereoMatch match;
    bool tellsProbabilities = true;
    double seconds = 0;
};

struct Matcher {
    std::string name;
    std::function<Matched(const MatchingScene& scene, const Told& told)> match;
};

/// By their names, separated by commas: trusted, conics, constellation, fallback, centres, all.
/// @throws std::invalid_argument  for a name that is none.
std::vector<Matcher> matchersOf(const std::string& names);

}  // namespace kestrune::bench
