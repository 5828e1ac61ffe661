// SPDX-License-Identifier: Apache-2.0
#include <kestrune/MarkerMetrology.h>

#include <memory>

#include "candidates.h"

namespace kestrune::bench {

Job refinementJob(const BenchScene& scene, const CicrleConfigs& settings) {
    struct State {
        std::vector<Corner> corners;
        std::vector<MarkerEstimate> estimates;
    };
    auto state = std::make_shared<State>();
    CircleMarkerExtractor().CircleExtractComplex(scene.image, state->corners, 0, settings);
    return {[state, image = scene.image] { state->estimates = refineMarkers(image, state->corners); },
            [state] {
                std::vector<cv::Point2d> centres;
                for (const MarkerEstimate& estimate : state->estimates) centres.push_back(estimate.centre);
                return centres;
            }};
}

}  // namespace kestrune::bench
