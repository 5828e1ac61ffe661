// SPDX-License-Identifier: Apache-2.0
#include "kestrune/MarkerExtractor.h"

namespace kestrune {

// The special members are defined here, not in the header, so that they are exported once and a host need not agree
// with the library on their inlining.
CircleMarkerExtractor::CircleMarkerExtractor() = default;
CircleMarkerExtractor::CircleMarkerExtractor(const CircleMarkerExtractor& other) = default;
CircleMarkerExtractor::~CircleMarkerExtractor() = default;
CircleMarkerExtractor& CircleMarkerExtractor::operator=(const CircleMarkerExtractor& other) = default;

}  // namespace kestrune
