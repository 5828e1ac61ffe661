// SPDX-License-Identifier: Apache-2.0
#include "rule_matchers.h"

#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <stdexcept>

#include "MarkerExtractor/stereo/from_images.h"
#include "centre_match.h"

namespace kestrune::bench {
namespace {

constexpr double kNearest = 2 / 3., kFarthest = 4 / 3.;  ///< of the object's distance, as the ready settings have it
constexpr int kRadiusSteps = 8;                          ///< through continuous sizes

CicrleConfigs readySettings(const char* file, Path path) {
    return readSettings(std::string(KESTRUNE_SETTINGS_DIR) + "/" + file, path, Use::stereo).configs;
}

std::vector<double> stepsThroughSizes(const MatchingScene& scene) {
    double least = scene.discs.front().radius, largest = least;
    for (const scene::Disc& disc : scene.discs) {
        least = std::min(least, disc.radius);
        largest = std::max(largest, disc.radius);
    }
    std::vector<double> radii;
    for (int k = 0; k < kRadiusSteps; ++k) radii.push_back(least * std::pow(largest / least, k / (kRadiusSteps - 1.)));
    return radii;
}

CicrleConfigs settingsFor(const std::string& name, const MatchingScene& scene, const Told& told) {
    static const CicrleConfigs radial = readySettings("bright-radial.yaml", Path::radial);
    static const CicrleConfigs simple = readySettings("bright-subpixel.yaml", Path::simple);
    const bool conics = name == "conics";
    CicrleConfigs configs = conics ? radial : simple;
    const double distance = 0.5 * (scene.depth[0] + scene.depth[1]);
    configs.minDepth = told.depth ? scene.depth[0] : kNearest * distance;
    configs.maxDepth = told.depth ? scene.depth[1] : kFarthest * distance;
    configs.markerRadii = scene.radii;
    if (conics && !told.radii) configs.markerRadii.clear();
    if (!conics && scene.radii.empty()) configs.markerRadii = stepsThroughSizes(scene);
    if (name == "fallback") configs.edgeLengthTolerance = configs.edgeAngleTolerance = 0;
    return configs;
}

using Pairs = std::vector<std::pair<int, int>>;

Pairs byCentres(std::array<std::vector<Corner>, 2>& corners, CircleMarkerExtractor& extractor) {
    const cv::Mat fundamental = measure::fundamentalOf(extractor);
    Pairs pairs;
    for (const measure::CentrePair& pair : measure::matchCentres(extractor, fundamental, corners[0], corners[1]))
        pairs.emplace_back(pair.place[0], pair.place[1]);
    return pairs;
}

}  // namespace

std::array<std::vector<Corner>, 2> recordsOf(const std::array<std::vector<MarkerEstimate>, 2>& markers) {
    std::array<std::vector<Corner>, 2> corners;
    for (std::size_t eye = 0; eye < 2; ++eye)
        for (MarkerEstimate estimate : markers[eye]) {
            estimate.status = RefinementStatus::refined;
            updateCorner(corners[eye].emplace_back(), estimate);
            corners[eye].back().id = static_cast<std::int32_t>(corners[eye].size()) - 1;
        }
    return corners;
}

Matched matchByRules(const std::string& name, const MatchingScene& scene, const Told& told) {
    auto corners = recordsOf(scene.markers);
    CircleMarkerExtractor extractor = calibratedExtractor(rigOf(scene.rig));
    const CicrleConfigs configs = settingsFor(name, scene, told);
    Matched result;
    result.tellsProbabilities = false;
    Pairs pairs;
    const auto start = std::chrono::steady_clock::now();
    if (corners[0].empty() || corners[1].empty()) return result;
    if (name == "centres") {
        pairs = byCentres(corners, extractor);
    } else {
        ExplainedMatch explained;
        std::vector<Point3_<double>> points;
        explainStereoMatch(std::move(corners), extractor, points, configs, explained);
        pairs = explained.pairs;
    }
    result.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    for (const auto& [left, right] : pairs) {
        MatchedPair& pair = result.match.pairs.emplace_back();
        pair.left = left, pair.right = right, pair.probability = 1;
    }
    return result;
}

}  // namespace kestrune::bench
