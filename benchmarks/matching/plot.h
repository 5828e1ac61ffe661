// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "score.h"

namespace kestrune::bench {

/// SVG: for each series of scenes what happened over what was said, by decades, of all matchers that tell
/// probabilities and of exposures without an objection.
void plotReliability(const std::string& file,
                     const std::vector<std::pair<std::string, std::vector<SceneScore>>>& series);

}  // namespace kestrune::bench
