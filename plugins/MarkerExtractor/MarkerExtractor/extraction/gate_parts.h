// SPDX-License-Identifier: Apache-2.0
//
// What the gates of all paths with ellipses share.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <limits>
#include <opencv2/core.hpp>
#include <string>

#include "MarkerExtractor/extraction/ellipse_gates.h"
#include "checks/fixed_text.h"

namespace kestrune {

/// Half axes a >= b, formed in single precision like the ellipse and then widened.
struct HalfAxes {
    explicit HalfAxes(const cv::RotatedRect& rect)
        : a(0.5f * std::max(rect.size.width, rect.size.height)),
          b(0.5f * std::min(rect.size.width, rect.size.height)) {}

    double eccentricity() const { return std::sqrt(a * a - b * b) / a; }

    double a, b;
};

/// "<name>:<value>" with two decimals, as much of it as there is room for.
template <std::size_t N>
void writeReason(char (&text)[N], const char* name, double value) {
    const std::string whole = name + (':' + fixedText(value, 2));
    text[whole.copy(text, N - 1)] = '\0';
}

template <typename Verdict, typename GateName>
GateName refuse(Verdict& verdict, GateName gate, double measured) {
    verdict.refusedBy = gate;
    verdict.measured = measured;
    return gate;
}

/// Takes over the fitted ellipse and the contour's area, and asks whether the ellipse is finite and not too long.
inline bool passesEllipse(GateVerdict& verdict, const cv::RotatedRect& rect, double area,
                          const CicrleConfigs& configs) {
    Corner& candidate = verdict.candidate;
    verdict.rect = rect;
    if (!isFinite(rect)) {
        refuse(verdict, Gate::kFit, std::numeric_limits<double>::quiet_NaN());
        return false;
    }
    const HalfAxes axes(rect);
    verdict.halfAxis = static_cast<float>(axes.a);
    candidate.x = rect.center.x;
    candidate.y = rect.center.y;
    candidate.area = area;
    candidate.eccentricity = axes.eccentricity();
    if (!(candidate.eccentricity > configs.maxEccentricity)) return true;
    writeReason(candidate.eccentricityText, "eccentricity", candidate.eccentricity);
    refuse(verdict, Gate::kEccentricity, candidate.eccentricity);
    return false;
}

}  // namespace kestrune
