// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <vector>

#include "score.h"

namespace kestrune::bench {

/// What scenes can be grouped by: layout, stance, rig, noise, spread, markers, radius, sizes, single, false, levels,
/// angle, tilt.
const std::vector<std::string>& groupings();

/// Markdown: a row for each matcher and group, then what all come to. No grouping: only that.
/// @throws std::invalid_argument  for a grouping that is none.
void printPairs(const std::vector<SceneScore>& scores, const std::string& grouping);

/// Markdown: what claims of a matcher came to, by decades.
void printReliability(const std::vector<SceneScore>& scores);

/// Markdown: what was said of exposures as a whole.
void printObjections(const std::vector<SceneScore>& scores);

/// Markdown: what was said of rigs that have turned.
void printMoved(const std::vector<SceneScore>& scores);

/// A line for each wrong pair that was said to be sure.
void printWrong(const std::vector<SceneScore>& scores);

/// A line for each scene with markers that both eyes see and that are in no sure pair; of an exposure against which
/// nothing stands, one for each of these markers.
void printLost(const std::vector<SceneScore>& scores);

}  // namespace kestrune::bench
