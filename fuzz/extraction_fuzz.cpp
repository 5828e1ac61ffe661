// SPDX-License-Identifier: Apache-2.0
//
// Every way from an image to markers, twice: on settings and images of any kind a call answers or refuses, and answers
// the same each time.
#include <bit>
#include <cstdint>

#include "fuzz_input.h"

namespace kestrune::fuzz {
namespace {

struct Outcome {
    bool answered, found = false;
    std::vector<Corner> corners;
    std::size_t rects = 0;
};

Outcome extract(int way, cv::Mat image, const CicrleConfigs& configs, CircleMarkerExtractor extractor, int eye) {
    Outcome outcome{};
    outcome.answered = survives([&] {
        switch (way) {
            case 0:
                outcome.found = ExtractCircleMarker(image, extractor, outcome.corners, eye, configs);
                break;
            case 1:
                outcome.found = extractor.CircleExtractSimple(image, outcome.corners, eye, configs);
                break;
            case 2:
                outcome.found = extractor.CircleExtractComplex(image, outcome.corners, eye, configs);
                break;
            case 3:
                outcome.found = extractor.extractMarkPointsFast(image, outcome.corners, eye, configs);
                break;
            default:
                outcome.found = extractor.CircleExtractSimpleForHand(image, outcome.corners, eye, configs);
        }
    });
    outcome.rects = extractor.markerRects.size();
    return outcome;
}

/// To tell whether two numbers are one, NaN included.
std::uint64_t bitsOf(double value) {
    return std::bit_cast<std::uint64_t>(value);
}

void checkOne(const std::uint8_t* data, std::size_t size) {
    Input input(data, size);
    const int way = input.whole(0, 4), eye = input.whole(-1, 1);
    const CicrleConfigs configs = input.configs();
    CircleMarkerExtractor extractor;
    extractor.leftIntrinsic = input.camera();
    extractor.rightIntrinsic = input.camera();
    extractor.leftDistortion = input.matrix(1, 5, -0.2, 0.2);
    extractor.rightDistortion = input.matrix(1, 5, -0.2, 0.2);
    const cv::Mat image = input.image(input.imageSize());

    const Outcome first = extract(way, image, configs, extractor, eye);
    const Outcome second = extract(way, image, configs, extractor, eye);
    require(first.answered == second.answered && first.corners.size() == second.corners.size(), "same every time");
    for (std::size_t k = 0; k < first.corners.size(); ++k) {
        const Corner &a = first.corners[k], &b = second.corners[k];
        require(bitsOf(a.x) == bitsOf(b.x) && bitsOf(a.y) == bitsOf(b.y), "same centres");
        require(a.contour.size() == b.contour.size(), "same contours");
        require(way > 2 || !first.answered || a.id == static_cast<int>(k), "ids count the list");
    }
    require(!first.answered || first.found == !first.corners.empty(), "the result says whether there are markers");
    require(way > 2 || !first.answered || first.rects == first.corners.size(), "an ellipse for each marker");
}

}  // namespace
}  // namespace kestrune::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    kestrune::fuzz::checkOne(data, size);
    return 0;
}
