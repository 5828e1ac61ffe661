// SPDX-License-Identifier: Apache-2.0
#include <algorithm>
#include <cmath>
#include <numbers>

#include "kestrune/MarkerMetrology/refinement.h"

namespace kestrune {

const char* nameOf(RefinementStatus status) {
    switch (status) {
        case RefinementStatus::refined:
            return "refined";
        case RefinementStatus::noOutline:
            return "no outline";
        case RefinementStatus::leavesImage:
            return "leaves the image";
        case RefinementStatus::touchesAnother:
            return "touches another";
        case RefinementStatus::tooFaint:
            return "too faint";
        case RefinementStatus::notConverged:
            return "not converged";
        case RefinementStatus::notADisc:
            return "not a disc";
    }
    return "";
}

AxisSigmas axisSigmas(const MarkerEstimate& estimate) {
    // a, b = s +- |e|; the direction of e is (cos 2t, sin 2t), and that of a round marker may be any.
    const auto& c = estimate.covariance;
    const double difference = 0.5 * (estimate.majorHalfAxis - estimate.minorHalfAxis);
    const double cosine = std::cos(2 * estimate.angle), sine = std::sin(2 * estimate.angle);
    const double along = cosine * cosine * c(3, 3) + 2 * cosine * sine * c(3, 4) + sine * sine * c(4, 4);
    const double across = sine * sine * c(3, 3) - 2 * cosine * sine * c(3, 4) + cosine * cosine * c(4, 4);
    const double mixed = 2 * (cosine * c(2, 3) + sine * c(2, 4));
    const auto root = [](double v) { return v < 0 ? 0 : std::sqrt(v); };  // what is not known stays so
    const double unknown = std::numbers::pi / std::sqrt(12.0);
    return {root(c(2, 2) + along + mixed), root(c(2, 2) + along - mixed),
            difference > 0 ? std::min(unknown, 0.5 * root(across) / difference) : unknown};
}

}  // namespace kestrune
