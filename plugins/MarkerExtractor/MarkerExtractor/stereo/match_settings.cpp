// SPDX-License-Identifier: Apache-2.0
#include "MarkerExtractor/stereo/match_settings.h"

namespace kestrune {

namespace {

MatchSettings commonSettings(const CicrleConfigs& configs) {
    return {{configs.maxRowDifference, configs.minDepth, configs.maxDepth}, configs.markerRadii, configs.sizeTolerance};
}

}  // namespace

// Each reads the fields of its own matcher only: a host need not fill the others.
ConicMatchSettings conicMatchSettings(const CicrleConfigs& configs) {
    return {commonSettings(configs), configs.minRadiusRatio};
}

RectifiedMatchSettings rectifiedMatchSettings(const CicrleConfigs& configs) {
    return {commonSettings(configs), configs.radiusScoreGate,
            configs.looseSizeGate,   configs.plainRowGate,
            configs.deviationFactor, {configs.edgeLengthTolerance, configs.edgeAngleTolerance}};
}

}  // namespace kestrune
