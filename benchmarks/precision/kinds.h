// SPDX-License-Identifier: Apache-2.0
//
// The kinds of marker that are judged.
#pragma once

#include <string>
#include <vector>

namespace kestrune::bench {

enum class Cover { none, ground, third };

/// Where light varies by this much over that many px.
constexpr double kShadingChange = 0.1, kShadingLength = 400;

struct Kind {
    std::string family;         ///< "even", "shading", ...
    std::string name;           ///< what sets it apart within its family
    double radius = 20;         ///< larger half axis, px
    double contrast = 100;      ///< grey levels
    double noise = 2;           ///< standard deviation of a pixel, grey levels
    double shot = 0;            ///< added variance for each grey level of the signal
    double blur = 1;            ///< px
    double tilt = 0;            ///< degrees: the smaller half axis is the larger one times its cosine
    double slope = 0;           ///< of the light, 1/px
    double bowl = 0;            ///< fall of the light from the middle of the image, 1/px^2
    double halo = 0;            ///< share of the light that is spread three times as wide
    bool pairs = false;         ///< markers stand in pairs with 3 px between their rims
    Cover cover = Cover::none;  ///< of a fifth of the diameter, by something straight
    bool dark = false;
    double k1 = 0;
    int bits = 8;

    double minorHalfAxis() const;
    double ground() const;  ///< grey level
    double inside() const { return ground() + (dark ? -contrast : contrast); }
};

/// Names of the families, in the order of the tables.
const std::vector<std::string>& familyNames();

/// All kinds of a family, or of all for "all". @throws std::invalid_argument  for a name that is none.
std::vector<Kind> kindsOf(const std::string& family);

}  // namespace kestrune::bench
