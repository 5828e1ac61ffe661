// SPDX-License-Identifier: Apache-2.0
//
// The fast road of every path beside the plain one, on images so small that a million of them take minutes: borders,
// seams and neighbours are everywhere on them.
#include <opencv2/imgproc.hpp>

#include "MarkerExtractor/extraction/plain_road.h"
#include "fuzz_input.h"
#include "promises.h"

namespace kestrune::fuzz {
namespace {

constexpr int kLargestSide = 72;

/// Discs and rings of either polarity, some with their middle off the image, blurred, and noise.
cv::Mat drawnImage(Input& input) {
    const int ground = input.whole(0, 255);
    cv::Mat image(input.whole(1, kLargestSide), input.whole(1, kLargestSide), CV_8UC1, cv::Scalar(ground));
    for (int k = input.whole(0, 4); k > 0; --k) {
        const cv::Point centre(input.whole(-4, image.cols + 4), input.whole(-4, image.rows + 4));
        const cv::Size axes(input.whole(1, 20), input.whole(1, 20));
        cv::ellipse(image, centre, axes, input.whole(0, 90), 0, 360, cv::Scalar(input.whole(0, 255)),
                    input.flag() ? cv::FILLED : input.whole(1, 3), input.flag() ? cv::LINE_AA : cv::LINE_8);
    }
    if (input.flag()) cv::GaussianBlur(image, image, {0, 0}, 0.4 * input.whole(1, 4));
    if (const int noise = input.isOdd() ? 128 : input.whole(0, 24); noise > 0) {
        cv::Mat sum(image.size(), CV_16SC1);
        cv::RNG(static_cast<std::uint64_t>(input.whole(1, 1 << 20))).fill(sum, cv::RNG::UNIFORM, -noise, noise + 1);
        cv::add(image, sum, image, cv::noArray(), CV_8U);
    }
    return image;
}

Record recordOf(bool isPlain, CircleMarkerExtractor& extractor, const cv::Mat& image, const CicrleConfigs& configs) {
    takePlainRoad = isPlain;
    std::vector<Corner> corners;
    Record record;
    bool found = false;
    const Outcome outcome = outcomeOf([&] { found = ExtractCircleMarker(image, extractor, corners, 0, configs); });
    record.outcome(outcome);
    if (!outcome.answered()) return record;  // its members are those of the call before
    record.numbers("found", found);
    record.corners("corners", corners);
    record.rects("markerRects", extractor.markerRects);
    return record;
}

void checkOne(Input& input) {
    static CircleMarkerExtractor kept;  // its storage comes from images of other sizes
    const int path = input.whole(0, kPathCount - 1);
    CicrleConfigs configs = input.spoiled(goodConfigs(static_cast<Path>(path)), 2);
    configs.skipUndistort = true;
    if (input.flag()) configs.scale = input.whole(1, 3), configs.refineAtFullSize = input.flag();
    if (input.flag()) configs.minDiameter = 1, configs.maxFitResidual = 2, configs.contrast = input.whole(0, 20);
    if (input.flag()) configs.minContourSize = input.whole(1, 12), configs.minArea = 1, configs.maxCircularity = 10;
    const cv::Mat image = drawnImage(input);
    setThreads({.manyThreads = input.flag()});
    CircleMarkerExtractor fresh;
    requireSame(recordOf(true, fresh, image, configs), recordOf(false, kept, image, configs),
                "the fast road equals the plain one");
}

}  // namespace
}  // namespace kestrune::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    kestrune::fuzz::Input input(data, size);
    kestrune::fuzz::checkOne(input);
    return 0;
}
