// SPDX-License-Identifier: Apache-2.0
#include "bench_scenes.h"

#include <algorithm>
#include <cmath>
#include <map>
#include <stdexcept>
#include <string>
#include <tuple>

namespace kestrune::bench {
namespace {

// As far as markers on a curved object lean away before they are hard to use: their images are ellipses of axis ratio
// down to 0.87, so that detectors of circles still see what they are made for.
constexpr double kMaxTiltDegrees = 30;

// Largest radius as a share of the grid cell that a marker has to itself: leaves room for the jitter and for a rim of
// ground as wide as the probes of the radial contours reach.
constexpr double kRadiusPerCell = 0.3;

constexpr double kBlurSigma = 0.8;
constexpr double kNoiseSigma = 2.0;
constexpr std::uint64_t kSeed = 20;

// Half the smallest radius: farther off, a centre is not that of this marker.
constexpr double kMatchDistancePx = kMinRadiusPx / 2;

BenchScene renderScene(cv::Size size, int markers) {
    scene::Rig rig = scene::makeVergedRig(size);
    rig.left.distortion.fill(0);
    rig.right.distortion.fill(0);
    const double cell = std::sqrt(static_cast<double>(size.area()) / markers);
    const double largest = std::min(kMaxRadiusPx, kRadiusPerCell * cell);
    const std::vector<scene::Disc> discs =
        scene::makeScatteredDiscs(rig, markers, kMinRadiusPx, largest, kMaxTiltDegrees, kDiscGrey, kSeed);
    scene::RenderOptions options;
    options.background = kBackgroundGrey;
    options.blurSigma = kBlurSigma;
    options.noiseSigma = kNoiseSigma;
    options.seed = kSeed;
    scene::Exposure exposure = scene::render(rig, discs, {}, options);
    const auto visible = std::count_if(exposure.markers.begin(), exposure.markers.end(),
                                       [](const scene::MarkerTruth& marker) { return marker.eye[0].visible; });
    if (visible != markers)
        throw std::runtime_error("only " + std::to_string(visible) + " of " + std::to_string(markers) +
                                 " markers are visible at " + std::to_string(size.width) + "x" +
                                 std::to_string(size.height));
    return {exposure.image[0], exposure.image[1], rig, std::move(exposure.markers)};
}

}  // namespace

const BenchScene& cachedScene(cv::Size size, int markers) {
    static std::map<std::tuple<int, int, int>, BenchScene> scenes;
    const std::tuple key{size.width, size.height, markers};
    const auto found = scenes.find(key);
    if (found != scenes.end()) return found->second;
    return scenes.emplace(key, renderScene(size, markers)).first->second;
}

Quality judge(const BenchScene& scene, const std::vector<cv::Point2d>& centres) {
    const scene::DetectionScore score = scene::scoreDetections(scene.markers, 0, centres, true, kMatchDistancePx);
    const double visible = static_cast<double>(score.matches.size() + score.missed.size());
    return {visible > 0 ? static_cast<double>(score.matches.size()) / visible : 0,
            static_cast<double>(score.falseOnes.size()), score.centreRms};
}

}  // namespace kestrune::bench
