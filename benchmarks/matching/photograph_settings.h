// SPDX-License-Identifier: Apache-2.0
//
// Light and lens of a photographed exposure, and the settings of who looks at its images.
#pragma once

#include <array>

#include "draws.h"
#include "kestrune/MarkerMetrology.h"
#include "kestrune_scene/scene.h"

namespace kestrune::bench {

struct Exposition {
    double ground, contrast, noise;
    Path path;
    bool dark;  ///< markers darker than their ground
    std::array<double, 2> gain, blur;
    std::array<cv::Vec2d, 2> shade;  ///< of the eyes, as `scene::RenderOptions` has it

    /// Grey level of a marker of which the print differs by `share`.
    double markerGrey(std::size_t eye, double share) const;

    /// Whether the path is shown the image inverted.
    bool isInverted() const { return dark && path != Path::complex; }
};

Exposition drawExposition(bool dark, Draws& draws);

/// Half axes of the smallest and the largest image of a marker, px.
struct MarkerSizes {
    double leastMinor = 0, least = 0, most = 0;
};

Settings settingsFor(const MarkerSizes& sizes, const Exposition& light);

}  // namespace kestrune::bench
