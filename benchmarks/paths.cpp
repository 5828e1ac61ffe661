// SPDX-License-Identifier: Apache-2.0
//
// The library's operations as jobs. Knows its public header only, so that it can be compiled for an earlier build, too.
#include <kestrune_scene/records.h>

#include <memory>

#include "candidates.h"

namespace kestrune::bench {
namespace {

struct State {
    CircleMarkerExtractor extractor;
    std::vector<Corner> corners;
    std::vector<Point3_<double>> points;
    std::vector<cv::RotatedRect> leftRects, rightRects;
};

void extract(State& state, const cv::Mat& image, const CicrleConfigs& settings, Operation operation) {
    state.corners.clear();
    switch (operation) {
        case Operation::fast:
            state.extractor.extractMarkPointsFast(image, state.corners, 0, settings);
            break;
        case Operation::complex:
            state.extractor.CircleExtractComplex(image, state.corners, 0, settings);
            break;
        default:
            state.extractor.CircleExtractSimple(image, state.corners, 0, settings);
    }
}

}  // namespace

Job pathJob(const BenchScene& scene, const CicrleConfigs& settings, Operation operation) {
    auto state = std::make_shared<State>();
    if (operation == Operation::stereo) {
        state->extractor = scene::calibrated(scene.rig);
        return {[state, settings, left = scene.image, right = scene.right] {
            state->points.clear();
            getStereoMarker3dPoints(left, right, state->extractor, state->points, state->leftRects, state->rightRects,
                                    settings);
        }};
    }
    return {[state, settings, operation, image = scene.image] { extract(*state, image, settings, operation); },
            [state] {
                std::vector<cv::Point2d> centres;
                for (const Corner& corner : state->corners) centres.emplace_back(corner.x, corner.y);
                return centres;
            }};
}

}  // namespace kestrune::bench
