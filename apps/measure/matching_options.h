// SPDX-License-Identifier: Apache-2.0
//
// How a command pairs the markers of an exposure, and what its user knows of them.
#pragma once

#include <optional>
#include <string>

#include <kestrune/MarkerMetrology.h>
#include "run_files.h"
#include "trusted_match.h"

namespace kestrune::measure {

struct MatchingOptions {
    Matching matching = kMatchStereo;
    MatchKnowledge known;  ///< but for the object
    std::string object;    ///< file name, empty: none

    /// Names the files to the run's check.
    void addTo(RunFiles& files) const;
};

/// What a match by probability takes beside the images, with the object read; none where the path's matcher is asked
/// for.
///
/// @throws InputError  for numbers out of their ranges, a file that is no object, and what the path's matcher would
///                     not read.
std::optional<TrustedInput> trustedInput(const MatchingOptions& options, const Rig& calibration);

}  // namespace kestrune::measure
