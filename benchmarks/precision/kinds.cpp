// SPDX-License-Identifier: Apache-2.0
#include "kinds.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <numbers>
#include <stdexcept>

namespace kestrune::bench {
namespace {

// Both levels stay away from black and white, which would cut the noise off, and about the fixed threshold of the fast
// path wherever that is possible.
constexpr double kMiddle = 100, kDarkest = 30;

// A rim is told from a spot by half axes above this, in units of the blur.
constexpr double kLeastWidth = 1.2;

constexpr double kRadii[] = {4, 6, 10, 20, 40, 80};
constexpr double kBlurs[] = {0.5, 1, 2, 3};
constexpr double kTilts[] = {0, 45, 70};

struct Signal {
    double contrast, noise;
};
constexpr Signal kSignals[] = {{200, 0.5}, {100, 2}, {200, 8}, {20, 1}};

bool isTold(const Kind& kind) {
    return kind.minorHalfAxis() >= kLeastWidth * kind.blur;
}

/// Variations of one thing: at small and large radius, round and tilted.
template <typename Change>
void vary(std::vector<Kind>& kinds, const std::string& family, const std::string& name, const Change& change) {
    for (const double radius : {6., 10., 20., 40.})
        for (const double tilt : {0., 45.}) {
            Kind kind{.family = family, .name = name, .radius = radius, .tilt = tilt};
            change(kind);
            if (isTold(kind)) kinds.push_back(kind);
        }
}

std::vector<Kind> evenKinds() {
    std::vector<Kind> kinds;
    for (const double radius : kRadii)
        for (const double blur : kBlurs)
            for (const double tilt : kTilts)
                for (const auto& [contrast, noise] : kSignals) {
                    const Kind kind{.family = "even",
                                    .name = fmt::format("contrast {:g}, noise {:g}", contrast, noise),
                                    .radius = radius,
                                    .contrast = contrast,
                                    .noise = noise,
                                    .blur = blur,
                                    .tilt = tilt};
                    if (isTold(kind)) kinds.push_back(kind);
                }
    return kinds;
}

std::vector<Kind> shadingKinds() {
    std::vector<Kind> kinds;
    const auto add = [&](const char* name, double slope, double bowl) {
        vary(kinds, "shading", name, [&](Kind& kind) { kind.slope = slope, kind.bowl = bowl; });
        vary(kinds, "shading", fmt::format("{}, strong", name),
             [&](Kind& kind) { kind.slope = slope, kind.bowl = bowl, kind.contrast = 140, kind.noise = 1; });
    };
    add("linear", kShadingChange / kShadingLength, 0);
    add("quadratic", 0, kShadingChange / (kShadingLength * kShadingLength));
    return kinds;
}

std::vector<Kind> haloKinds() {
    std::vector<Kind> kinds;
    for (const double blur : {0.7, 1., 2.})
        vary(kinds, "halo", fmt::format("blur {:g}", blur), [&](Kind& kind) { kind.halo = 0.15, kind.blur = blur; });
    return kinds;
}

std::vector<Kind> neighbourKinds() {
    std::vector<Kind> kinds;
    for (const double blur : {0.7, 1., 2.})
        vary(kinds, "neighbours", fmt::format("blur {:g}", blur),
             [&](Kind& kind) { kind.pairs = true, kind.blur = blur; });
    return kinds;
}

std::vector<Kind> occlusionKinds() {
    std::vector<Kind> kinds;
    vary(kinds, "occlusion", "by ground", [](Kind& kind) { kind.cover = Cover::ground; });
    vary(kinds, "occlusion", "by half grey", [](Kind& kind) { kind.cover = Cover::third; });
    return kinds;
}

std::vector<Kind> lensKinds() {
    std::vector<Kind> kinds;
    vary(kinds, "lens", "k1 -0.3", [](Kind& kind) { kind.k1 = -0.3; });
    vary(kinds, "lens", "k1 -0.3, strong", [](Kind& kind) { kind.k1 = -0.3, kind.contrast = 200, kind.noise = 0.5; });
    return kinds;
}

std::vector<Kind> polarityKinds() {
    std::vector<Kind> kinds;
    vary(kinds, "polarity", "dark", [](Kind& kind) { kind.dark = true; });
    vary(kinds, "polarity", "dark, 16 bits", [](Kind& kind) { kind.dark = true, kind.bits = 16; });
    return kinds;
}

std::vector<Kind> shotKinds() {
    std::vector<Kind> kinds;
    for (const double shot : {0.02, 0.1, 0.3})
        vary(kinds, "shot", fmt::format("variance 0.25 + {:g} of the level", shot),
             [&](Kind& kind) { kind.shot = shot, kind.noise = 0.5, kind.contrast = 150; });
    return kinds;
}

struct Family {
    const char* name;
    std::vector<Kind> (*kinds)();
};
constexpr Family kFamilies[] = {
    {"even", evenKinds},           {"shading", shadingKinds},
    {"halo", haloKinds},           {"neighbours", neighbourKinds},
    {"occlusion", occlusionKinds}, {"lens", lensKinds},
    {"polarity", polarityKinds},   {"shot", shotKinds},
};

}  // namespace

double Kind::minorHalfAxis() const {
    return radius * std::cos(tilt * std::numbers::pi / 180);
}

double Kind::ground() const {
    const double lower = std::max(kDarkest, kMiddle - contrast / 2);
    return dark ? lower + contrast : lower;
}

const std::vector<std::string>& familyNames() {
    static const std::vector<std::string> names = [] {
        std::vector<std::string> all;
        for (const Family& family : kFamilies) all.emplace_back(family.name);
        return all;
    }();
    return names;
}

std::vector<Kind> kindsOf(const std::string& family) {
    std::vector<Kind> kinds;
    for (const Family& one : kFamilies)
        if (family == "all" || family == one.name)
            for (const Kind& kind : one.kinds()) kinds.push_back(kind);
    if (kinds.empty()) throw std::invalid_argument(fmt::format("no kinds of the name '{}'", family));
    return kinds;
}

}  // namespace kestrune::bench
