// SPDX-License-Identifier: Apache-2.0
#include "matching_options.h"

#include "files/inputs.h"
#include "known_object.h"

namespace kestrune::measure {

void MatchingOptions::addTo(RunFiles& files) const {
    files.reads("--object", object);
}

std::optional<TrustedInput> trustedInput(const MatchingOptions& options, const Rig& calibration) {
    requireKnowledge(options.known);
    if (options.matching == Matching::path) {
        if (!options.known.isNothing() || !options.object.empty())
            throw InputError("--radii, --radius-tolerance, --depth-range, --sure, --object",
                             "are for --match trusted; the path's matcher reads the settings alone");
        return std::nullopt;
    }
    TrustedInput input{options.known, calibration.uncertainty};
    if (!options.object.empty()) input.known.object = readKnownObject(options.object);
    return input;
}

}  // namespace kestrune::measure
