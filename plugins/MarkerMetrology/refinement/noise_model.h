// SPDX-License-Identifier: Apache-2.0
//
// The noise of a pixel: a part that is always there, with that of rounding to whole grey levels, and one that grows
// with the light that was counted (shot noise). Variance = fixed + perLevel * level.
#pragma once

#include <algorithm>
#include <vector>

namespace kestrune::refinement {

/// Variance of rounding to whole numbers.
inline constexpr double kRounding = 1.0 / 12;

struct NoiseModel {
    double fixed = 1;     ///< grey levels^2
    double perLevel = 0;  ///< grey levels
    double least = kRounding;
    double variance(double level) const { return std::max(least, fixed + perLevel * level); }
};

/// What is left of pixels at one level.
struct ResidualSample {
    double level = 0;     ///< mean
    double variance = 0;  ///< mean of the squared residuals
    double count = 0;     ///< pixels, less the unknowns that they determined
};

/// The straight line through the samples' variances, by weighted least squares with the variance that squares of
/// Gaussian residuals have (2 v^2); level where its slope is not significant.
///
/// @param samples  at any levels; those of one level give no slope
NoiseModel noiseOf(const std::vector<ResidualSample>& samples);

}  // namespace kestrune::refinement
