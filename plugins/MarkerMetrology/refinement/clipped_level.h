// SPDX-License-Identifier: Apache-2.0
//
// What a pixel reads whose light, with its noise, goes beyond the range of the image: white is white, however bright.
#pragma once

#include <opencv2/core.hpp>

namespace kestrune::refinement {

/// Of level + noise, cut off at the limits of the image.
struct ClippedLevel {
    double mean = 0;
    double slope = 1;     ///< of the mean over the level: 1 within the range, 0 beyond
    double variance = 1;  ///< share of the noise's variance that is left
};

/// Beyond so many standard deviations from a limit nothing is cut off.
inline constexpr double kClippedWithin = 4;

/// A level may be so many ranges beyond the range of the image. Farther out, the foot of the rim alone is within it,
/// which tells no size.
inline constexpr double kMostBeyond = 3;

inline bool isFarBeyond(double level, const cv::Vec2d& limits) {
    const double most = kMostBeyond * (limits[1] - limits[0]);
    return level <= limits[0] - most || level >= limits[1] + most;
}

/// @param sigma   of Gaussian noise, grey levels, above 0
/// @param limits  least and largest level of the image
ClippedLevel clippedLevel(double level, double sigma, const cv::Vec2d& limits);

/// Standard deviation of what is cut off: of the noise without that of rounding, which comes after.
///
/// @param variance  of the noise with rounding, grey levels^2
double sigmaBeforeRounding(double variance);

/// Variance of noise of which some was cut off, by what is left of it.
///
/// @param variance  of the pixels, grey levels^2
/// @param share     of them at a limit, 0 < share < 1
double varianceBeforeClipping(double variance, double share);

}  // namespace kestrune::refinement
