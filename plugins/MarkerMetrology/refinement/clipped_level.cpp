// SPDX-License-Identifier: Apache-2.0
#include "refinement/clipped_level.h"

#include <algorithm>
#include <cmath>
#include <numbers>

#include "refinement/noise_model.h"

namespace kestrune::refinement {
namespace {

constexpr double kLeastSigma = 0.02;  // grey levels: an image without noise, whose mean still has a slope at the limit
constexpr double kFarthestSigma = 10, kLeastLeft = 0.05;  // standard deviations; share
constexpr int kHalvings = 40, kRoundingSteps = 8;

/// Share of the standard normal distribution above z.
double above(double z) {
    return 0.5 * std::erfc(z * (std::numbers::sqrt2 / 2));
}

/// Mean of what a standard normal number exceeds z by.
double excess(double z) {
    return std::exp(-0.5 * z * z) / std::sqrt(2 * std::numbers::pi) - z * above(z);
}

/// Variance of min(n, z), n a standard normal number.
double varianceBelow(double z) {
    const double density = std::exp(-0.5 * z * z) / std::sqrt(2 * std::numbers::pi), beyond = above(z);
    const double mean = z * beyond - density;
    return std::clamp(1 - beyond - z * density + z * z * beyond - mean * mean, 0.0, 1.0);
}

}  // namespace

ClippedLevel clippedLevel(double level, double sigma, const cv::Vec2d& limits) {
    const double toMost = (limits[1] - level) / sigma, toLeast = (level - limits[0]) / sigma;
    ClippedLevel result;
    result.mean = level - sigma * excess(toMost) + sigma * excess(toLeast);
    result.slope = std::max(0.0, 1 - above(toMost) - above(toLeast));
    result.variance = varianceBelow(toMost) * varianceBelow(toLeast);
    return result;
}

double sigmaBeforeRounding(double variance) {
    return std::sqrt(std::max(kLeastSigma * kLeastSigma, variance - kRounding));
}

double varianceBeforeClipping(double variance, double share) {
    double low = -kFarthestSigma, high = kFarthestSigma;
    for (int i = 0; i < kHalvings; ++i) {
        const double middle = (low + high) / 2;
        (above(middle) > share ? low : high) = middle;
    }
    double result = std::max(variance, kRounding);
    // What is rounded to the limit begins half a level before it.
    for (int i = 0; i < kRoundingSteps; ++i)
        result = variance / std::max(kLeastLeft, varianceBelow(low + 0.5 / std::sqrt(result)));
    return std::max(result, kRounding);
}

}  // namespace kestrune::refinement
