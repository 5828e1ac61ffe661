// SPDX-License-Identifier: Apache-2.0
#include "MarkerExtractor/extraction/contour_verdict.h"

#include <limits>

#include "kestrune_geometry/contour_shape.h"

namespace kestrune {

GateRule finiteFit() {
    return inWords(Gate::kFit, "fit", "a finite ellipse");
}

GateRule eccentricityGate(const CicrleConfigs& configs) {
    return atMost(Gate::kEccentricity, "eccentricity", "maxEccentricity {}", configs.maxEccentricity);
}

GateRule circularityGate(const CicrleConfigs& configs) {
    return between(Gate::kCircularity, "circularity", "minCircularity {} to below maxCircularity {}",
                   configs.minCircularity, configs.maxCircularity, Ends::kHalfOpen)
        .onlyIf(configs.enableCircularityFilter);
}

GateRule convexityGate(const CicrleConfigs& configs) {
    return between(Gate::kConvexity, "convexity", "minConvexRatio {} to maxConvexRatio {}", configs.minConvexRatio,
                   configs.maxConvexRatio)
        .onlyIf(configs.enableConvexityFilter);
}

bool failsEllipse(GateVerdict& verdict, const cv::RotatedRect& rect, double area, const GateTable& gates) {
    Corner& candidate = verdict.candidate;
    verdict.rect = rect;
    if (!geometry::isFinite(rect)) {
        verdict.refuse(gates[Gate::kFit], std::numeric_limits<double>::quiet_NaN());
        return true;
    }
    const geometry::HalfAxes axes(rect);
    verdict.halfAxis = static_cast<float>(axes.a);
    candidate.x = rect.center.x;
    candidate.y = rect.center.y;
    candidate.area = area;
    candidate.eccentricity = geometry::eccentricity(axes.a, axes.b);
    if (!verdict.fails(gates[Gate::kEccentricity], candidate.eccentricity)) return false;
    writeReason(candidate.eccentricityText, "eccentricity", candidate.eccentricity);
    return true;
}

}  // namespace kestrune
