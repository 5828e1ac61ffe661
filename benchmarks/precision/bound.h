// SPDX-License-Identifier: Apache-2.0
//
// The bound of what can be known of a marker, and a fit that should reach it.
#pragma once

#include "detectors.h"
#include "scene.h"

namespace kestrune::bench {

using Matrix8 = cv::Matx<double, 8, 8>;

/// Covariance, by the inverse of the Fisher information, of (x, y, s, e1, e2, inside, outside, blur) of a marker whose
/// pixels tell nothing else: light, halo, neighbours and what covers it are known. Derivatives by differences of the
/// rendered image.
///
/// @param roundingVariance  of a pixel, beside that of the noise, grey levels^2.
Matrix8 bound(const Scene& scene, const TrueMarker& marker, double roundingVariance);

/// Of rounding to whole grey levels or to those of 16 bits.
double roundingVariance(const Kind& kind);

/// Least squares with the renderer's own image and all that the bound takes for known, from the truth: what is left
/// above the bound here is that of the bound itself, where errors are not small.
Detector idealFit();

}  // namespace kestrune::bench
