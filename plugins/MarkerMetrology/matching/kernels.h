// SPDX-License-Identifier: Apache-2.0
//
// Densities with long tails, as is right where the next value may be of a kind that was not seen yet; they need no
// exponential.
#pragma once

#include <numbers>

namespace kestrune::matching {

/// 2 / (pi b) (1 + x^2 / b^2)^-2.
inline double longTailed(double x, double width) {
    const double ratio = x / width, sum = 1 + ratio * ratio;
    return 2 / (std::numbers::pi * width * sum * sum);
}

/// 1 / (pi b^2) (1 + d^2 / b^2)^-2 in two dimensions; half of it lies within b.
inline double longTailedInPlane(double distance2, double width2) {
    const double sum = width2 + distance2;
    return width2 / (std::numbers::pi * sum * sum);
}

}  // namespace kestrune::matching
