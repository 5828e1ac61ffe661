// SPDX-License-Identifier: Apache-2.0
//
// What the matchers read of the settings of a call, taken from them once. Bounds are compared as IEEE numbers, so that
// one that is NaN refuses what it bounds, or nothing, as each comparison says.
#pragma once

#include <vector>

#include "kestrune/MarkerExtractor/records.h"

namespace kestrune {

/// Where the partner of a marker may be.
struct PlaceBounds {
    double maxRowDifference;    ///< of the rectified centres, px
    double minDepth, maxDepth;  ///< in the rectified left frame, exclusive, unit of the poses
};

/// What both matchers ask of a pair.
struct MatchSettings {
    PlaceBounds place;
    std::vector<double> radii;  ///< nominal ones of the marker set, unit of the poses
    double sizeTolerance;       ///< ratio by which sizes may differ
};

/// Of markers that carry a conic.
struct ConicMatchSettings : MatchSettings {
    double minRadiusRatio;  ///< of the radii that the two eyes give, smaller by larger
};

/// Tolerances of the search for the constellation.
struct EdgeTolerances {
    double length;  ///< ratio
    double angle;   ///< rad
};

/// Of markers that carry none: by rows, size and constellation.
struct RectifiedMatchSettings : MatchSettings {
    bool radiusScoreGate, looseSizeGate, plainRowGate;  ///< choose the tests of rows and size
    int deviationFactor;                                ///< multiple of `sizeTolerance` that bounds spread or score
    EdgeTolerances edges;
};

ConicMatchSettings conicMatchSettings(const CicrleConfigs& configs);
RectifiedMatchSettings rectifiedMatchSettings(const CicrleConfigs& configs);

}  // namespace kestrune
