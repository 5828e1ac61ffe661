// SPDX-License-Identifier: Apache-2.0
//
// What the gates of all paths with ellipses share.
#pragma once

#include <cstddef>
#include <limits>
#include <opencv2/core.hpp>
#include <string>

#include "MarkerExtractor/extraction/ellipse_gates.h"
#include "checks/fixed_text.h"
#include "kestrune_geometry/contour_shape.h"

namespace kestrune {

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
    if (!geometry::isFinite(rect)) {
        refuse(verdict, Gate::kFit, std::numeric_limits<double>::quiet_NaN());
        return false;
    }
    const geometry::HalfAxes axes(rect);
    verdict.halfAxis = static_cast<float>(axes.a);
    candidate.x = rect.center.x;
    candidate.y = rect.center.y;
    candidate.area = area;
    candidate.eccentricity = geometry::eccentricity(axes.a, axes.b);
    if (!(candidate.eccentricity > configs.maxEccentricity)) return true;
    writeReason(candidate.eccentricityText, "eccentricity", candidate.eccentricity);
    refuse(verdict, Gate::kEccentricity, candidate.eccentricity);
    return false;
}

}  // namespace kestrune
