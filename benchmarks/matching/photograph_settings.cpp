// SPDX-License-Identifier: Apache-2.0
#include "photograph_settings.h"

#include <algorithm>
#include <cmath>
#include <string>

namespace kestrune::bench {
namespace {

// Light. Of markers fainter than this over the noise the paths find few.
constexpr double kLeastSignal = 8;
constexpr double kLeastContrast = 40, kMostContrast = 170, kWhite = 250;
constexpr double kShadedShare = 0.5, kMostShade = 0.5;

// Bounds as a user sets them who knows the markers and looks at an image.
constexpr double kLeastAreaShare = 0.4, kMostAreaShare = 1.6;  ///< of the smallest and the largest image
constexpr double kOpenCircularity = 0.5, kOpenEccentricity = 0.97, kOpenResidual = 0.15, kOpenAxisRatio = 0.28;
constexpr int kBlock = 21, kSmallBlock = 15;
constexpr double kLeastHalved = 5;  ///< minor half axis, px: smaller ones are sought at full size
constexpr float kMostDiameter = 130, kMostFullDiameter = 300;

// The ready settings of the sub-pixel path are for a blur of 0.8 px; a wider one makes slopes less steep.
constexpr double kReadySlope = 1.06, kSmoothing = 0.6;
constexpr double kOpenFitError = 4;
constexpr double kLeastGirth = 0.6;

int thresholdOf(const Exposition& light, double noises, double leastShare, double mostShare) {
    const double c = light.contrast * *std::min_element(light.gain.begin(), light.gain.end());
    return -static_cast<int>(std::lround(std::clamp(noises * light.noise, leastShare * c, mostShare * c)));
}

void setEdgeBased(CicrleConfigs& configs, const MarkerSizes& sizes, const Exposition& light) {
    configs.thresholdC = thresholdOf(light, 2.5, 0.05, 0.08);
    configs.aperture = kBlock;
    configs.maxDiameter = 2 * kMostDiameter;
    if (sizes.leastMinor >= kLeastHalved) return;
    configs.scale = 1;
    configs.aperture = kSmallBlock;
    configs.maxDiameter = kMostFullDiameter;
    configs.minDiameter = static_cast<float>(std::min(3.0, sizes.leastMinor));
}

void setRadial(CicrleConfigs& configs, const MarkerSizes& sizes, const Exposition& light) {
    configs.thresholdC = thresholdOf(light, 4, 0.04, 0.13);
    configs.contrast = static_cast<int>(0.5 * light.contrast);
    configs.aperture = kBlock;
    if (sizes.leastMinor < kLeastHalved) configs.scale = 1;
}

void setSubpixel(CicrleConfigs& configs, const MarkerSizes& sizes, const Exposition& light) {
    const double blur = *std::max_element(light.blur.begin(), light.blur.end());
    configs.sigma = std::max(configs.sigma, kSmoothing * blur);
    configs.aperture = 2 * static_cast<int>(std::ceil(3 * configs.sigma)) - 1;
    const double step = light.contrast / 3 * std::min(1.0, kReadySlope / std::hypot(configs.sigma, blur));
    configs.cannyLow = std::max(1, static_cast<int>(step));
    configs.cannyHigh = std::max(2, static_cast<int>(2 * step));
    configs.minContourSize =
        std::min(configs.minContourSize, static_cast<int>(kLeastGirth * CV_PI * (sizes.least + sizes.leastMinor)));
    configs.maxFitError = configs.maxPointError = static_cast<float>(kOpenFitError);
}

}  // namespace

double Exposition::markerGrey(std::size_t eye, double share) const {
    const double grey = ground + (dark ? -contrast : contrast) * share;
    return gain[eye] * std::clamp(grey, 0., kWhite);
}

Exposition drawExposition(bool dark, Draws& draws) {
    Exposition light{};
    light.dark = dark;
    light.path = draws.chance(0.4) ? Path::complex : draws.chance(0.7) ? Path::radial : Path::simple;
    light.contrast = draws.uniform(kLeastContrast, kMostContrast);
    light.ground = dark ? std::min(light.contrast + draws.uniform(15, 60), 210.) : draws.uniform(20, 60);
    light.noise = std::min(draws.logUniform(0.5, 12), light.contrast / kLeastSignal);
    const double blur = draws.uniform(0.6, 1.5);
    const bool shaded = draws.chance(kShadedShare);
    for (std::size_t eye = 0; eye < 2; ++eye) {
        light.gain[eye] = draws.uniform(0.85, 1.1);
        light.blur[eye] = blur * draws.uniform(0.85, 1.15);
        if (shaded) light.shade[eye] = {kMostShade * draws.uniform(-1, 1), kMostShade * draws.uniform(-1, 1)};
    }
    return light;
}

Settings settingsFor(const MarkerSizes& sizes, const Exposition& light) {
    const char* const file = light.path == Path::complex  ? "mixed-complex.yaml"
                             : light.path == Path::radial ? "bright-radial.yaml"
                                                          : "bright-subpixel.yaml";
    Settings settings = readSettings(std::string(KESTRUNE_SETTINGS_DIR) + "/" + file, light.path, Use::stereo);
    CicrleConfigs& configs = settings.configs;
    configs.skipUndistort = false;
    configs.minArea = kLeastAreaShare * CV_PI * sizes.least * sizes.leastMinor;
    configs.maxArea = kMostAreaShare * CV_PI * sizes.most * sizes.most;
    configs.minCircularity = kOpenCircularity;
    configs.maxEccentricity = kOpenEccentricity;
    configs.maxFitResidual = static_cast<float>(kOpenResidual);
    configs.minAxisRatio = static_cast<float>(kOpenAxisRatio);
    if (light.path == Path::complex) setEdgeBased(configs, sizes, light);
    if (light.path == Path::radial) setRadial(configs, sizes, light);
    if (light.path == Path::simple) setSubpixel(configs, sizes, light);
    return settings;
}

}  // namespace kestrune::bench
