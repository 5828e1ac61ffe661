// SPDX-License-Identifier: Apache-2.0
//
// How the markers of both eyes become pairs, and what a user knows beforehand.
#pragma once

#include <kestrune/MarkerExtractor.h>

#include <array>
#include <opencv2/core.hpp>
#include <optional>
#include <string>
#include <vector>

#include <kestrune/MarkerMetrology.h>

namespace kestrune::measure {

/// How the markers of both eyes become pairs.
enum class Matching {
    path,     ///< by the matcher of the settings' path
    trusted,  ///< by probability (`matchMarkers`): only pairs that are sure are results
};

/// The one that a stereo measurement takes if it is not told.
constexpr Matching kMatchStereo = Matching::trusted;

const char* nameOf(Matching matching);

/// @throws InputError  for a name that is none.
Matching matchingNamed(const std::string& name);

/// What is known of the markers of an exposure before a match by probability. What is not told comes from the settings,
/// if there are some.
struct MatchKnowledge {
    std::vector<double> radii;                   ///< nominal ones, unit of the rig; empty: those of the settings
    std::optional<double> radiusTolerance;       ///< standard deviation of a radius, as a share of the nominal one
    std::optional<std::array<double, 2>> depth;  ///< nearest and farthest z of the left camera, unit of the rig
    std::optional<double> sure;                  ///< least probability of a pair that is a result
    std::vector<KnownMarker> object;             ///< empty: none

    /// Whether nothing is told.
    bool isNothing() const { return radii.empty() && !radiusTolerance && !depth && !sure && object.empty(); }
};

/// Holds each number to its range. @throws InputError  that names it.
void requireKnowledge(const MatchKnowledge& known);

/// The options of a match without settings.
MatchOptions matchOptions(const MatchKnowledge& known);

/// The options of a match by these settings. Their `markerRadii` count as nominal radii that `sizeTolerance` is two
/// standard deviations of, since radii are given there as the path measures them; their `minDepth` and `maxDepth`,
/// which are depths of the rectified left camera, as the depths that a point in the image can then have.
///
/// @param rig   calibrated.
/// @param size  of the images, px.
MatchOptions matchOptions(const MatchKnowledge& known, const CicrleConfigs& configs, const CircleMarkerExtractor& rig,
                          cv::Size size);

}  // namespace kestrune::measure
