// SPDX-License-Identifier: Apache-2.0
//
// What the paths that judge a whole contour share: their verdict, the ellipse's gates, and admission to the result.
#pragma once

#include <cstddef>
#include <cstdint>
#include <opencv2/core.hpp>
#include <string>

#include "MarkerExtractor/extraction/gate_rules.h"
#include "checks/fixed_text.h"
#include "kestrune/MarkerExtractor/records.h"

namespace kestrune {

struct GateVerdict : Verdict {
    Corner candidate;      ///< as far as it was filled; complete, but for `id`, if accepted
    cv::RotatedRect rect;  ///< fitted ellipse, once there is a fit
    float halfAxis = 0;    ///< larger half axis of the fit, px, in the pixels of the contour
};

/// What became of an accepted candidate, and the id of the marker that it is or repeats.
struct Admission {
    enum Outcome { kAdded, kReplaced, kDropped } outcome;
    std::int32_t id;
};

/// "<name>:<value>" with two decimals, as much of it as there is room for.
template <std::size_t N>
void writeReason(char (&text)[N], const char* name, double value) {
    const std::string whole = name + (':' + fixedText(value, 2));
    text[whole.copy(text, N - 1)] = '\0';
}

/// The gate that refuses ellipses that are not finite.
GateRule finiteFit();

GateRule eccentricityGate(const CicrleConfigs& configs);
/// The gates of circularity and of the hull, each behind its switch.
GateRule circularityGate(const CicrleConfigs& configs);
GateRule convexityGate(const CicrleConfigs& configs);

/// Takes over the fitted ellipse and the contour's area, and asks the gates of fit and eccentricity.
///
/// @param gates  has both.
/// @return       whether one of them refused.
bool failsEllipse(GateVerdict& verdict, const cv::RotatedRect& rect, double area, const GateTable& gates);

}  // namespace kestrune
