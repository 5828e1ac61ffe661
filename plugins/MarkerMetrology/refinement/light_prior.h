// SPDX-License-Identifier: Apache-2.0
//
// How much the light of an exposure varies, as all its markers together show it. What one marker tells of its light is
// little, so that a free polynomial costs more precision than it brings where the light is even; but the light of an
// exposure is one light. So each marker's polynomial is drawn from zero mean and the variance that the whole exposure
// has (empirical Bayes; DerSimonian and Laird's moments, iterated): with none for even light, and almost free for
// strong shading.
#pragma once

#include <Eigen/Core>
#include <vector>

#include "refinement/flat_moments.h"

namespace kestrune::refinement {

/// What one marker, fitted in even light, says of the light's polynomial.
struct LightEvidence {
    using Terms = Eigen::Matrix<double, kLightTerms, 1>;
    Terms value = Terms::Zero();     ///< of each term, the other unknowns free
    Terms variance = Terms::Zero();  ///< of it
    double perPixel = 1;             ///< of the marker's `LightFrame`
};

/// Standard deviations over an exposure, relative: of the slope along each axis, 1 / px, and of the terms of degree
/// two, 1 / px^2. 0 where the exposure shows none.
struct LightPrior {
    double slope = 0, curvature = 0;
    int degree() const { return curvature > 0 ? 2 : slope > 0 ? 1 : 0; }
};

/// @param evidence    in any order: the result does not depend on it, not even by rounding
/// @param mostDegree  0 to 2
LightPrior lightOfExposure(const std::vector<LightEvidence>& evidence, int mostDegree);

}  // namespace kestrune::refinement
