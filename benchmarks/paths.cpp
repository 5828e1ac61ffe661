// SPDX-License-Identifier: Apache-2.0
#include <kestrune/MarkerExtractor.h>

#include <memory>

#include "bench_settings.h"
#include "candidates.h"

namespace kestrune::bench {
namespace {

using ExtractOperation = bool (CircleMarkerExtractor::*)(const cv::Mat&, std::vector<Corner>&, int,
                                                         const CicrleConfigs&);

Job extractionJob(const BenchScene& scene, const CicrleConfigs& settings, ExtractOperation extract) {
    struct State {
        CircleMarkerExtractor extractor;
        std::vector<Corner> corners;
    };
    auto state = std::make_shared<State>();
    return {[state, settings, extract, image = scene.image] {
                state->corners.clear();
                (state->extractor.*extract)(image, state->corners, 0, settings);
            },
            [state] {
                std::vector<cv::Point2d> centres;
                for (const Corner& corner : state->corners) centres.emplace_back(corner.x, corner.y);
                return centres;
            }};
}

}  // namespace

Job radialPath(const BenchScene& scene, int scale, bool refineAtFullSize) {
    return extractionJob(scene, radialSettings(scale, refineAtFullSize), &CircleMarkerExtractor::CircleExtractSimple);
}

Job subpixelPath(const BenchScene& scene, bool threaded) {
    return extractionJob(scene, subpixelSettings(threaded), &CircleMarkerExtractor::CircleExtractSimple);
}

Job fastPath(const BenchScene& scene) {
    return extractionJob(scene, fastSettings(), &CircleMarkerExtractor::extractMarkPointsFast);
}

Job complexPath(const BenchScene& scene, int scale) {
    return extractionJob(scene, complexSettings(scale), &CircleMarkerExtractor::CircleExtractComplex);
}

}  // namespace kestrune::bench
