// SPDX-License-Identifier: Apache-2.0
#include "error_marks.h"

#include <fmt/format.h>

#include <algorithm>

namespace kestrune::measure {
namespace {

// Of the median marker's smaller half axis, what the median error ellipse takes at most.
constexpr double kErrorShare = 0.6;

}  // namespace

void addError(Mark& mark, const MarkerEstimate& estimate) {
    if (estimate.isRefined())
        mark.error = errorEllipseOf(estimate.centreCovariance());
    else
        mark.kind = MarkKind::unrefined;
}

double errorScaleOf(const std::vector<Mark>& marks) {
    std::vector<double> errors, radii;
    for (const Mark& mark : marks) {
        if (!mark.error) continue;
        errors.push_back(mark.error->majorHalfAxis);
        radii.push_back(mark.minorHalfAxis);
    }
    if (radii.empty()) return 0;
    const auto middle = radii.begin() + static_cast<std::ptrdiff_t>(radii.size() / 2);
    std::ranges::nth_element(radii, middle);
    return errorScale(errors, kErrorShare * *middle);
}

std::string errorCaption(double scale) {
    return scale > 0 ? fmt::format("   error ellipses x {:g}", scale) : "";
}

}  // namespace kestrune::measure
