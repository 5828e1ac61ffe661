// SPDX-License-Identifier: Apache-2.0
//
// The two images of a rendered exposure and the calibration of its rig to points, with a little of it all spoiled.
#include "MarkerExtractor/stereo/from_images.h"
#include "fuzz_input.h"
#include "promises.h"
#include "reasons.h"

namespace kestrune::fuzz {
namespace {

using Rects = std::vector<cv::RotatedRect>;

/// Whether the call is given the extractor's own list as one of its results.
enum Shared { kNone, kLeft, kRight, kSharedCount };

struct Call {
    cv::Mat left, right;
    CicrleConfigs configs;
};

/// What a call fills, with what an earlier one may have left there.
struct Results {
    std::vector<std::pair<Corner, Corner>> pairs;
    std::vector<Point3_<double>> points{{1, 2, 3}};
    Rects leftRects{3}, rightRects{2};
    ExplainedMatch explained;

    Outcome fill(const Call& call, const Circumstances& circumstances, CircleMarkerExtractor& e, Shared shared) {
        const cv::Mat left = circumstances.imageOf(call.left), right = circumstances.imageOf(call.right);
        Rects& toLeft = shared == kLeft ? e.markerRects : leftRects;
        Rects& toRight = shared == kRight ? e.markerRects : rightRects;
        const Outcome outcome = outcomeOf([&] {
            pairs = circumstances.isAsked
                        ? explainStereoMarker3dPoints(left, right, e, points, toLeft, toRight, call.configs, explained)
                        : getStereoMarker3dPoints(left, right, e, points, toLeft, toRight, call.configs);
        });
        if (shared == kLeft) leftRects = e.markerRects;
        if (shared == kRight) rightRects = e.markerRects;
        return outcome;
    }

    Record record(bool hasRadii) const {
        Record result;
        std::vector<Corner> corners;
        for (const auto& [left, right] : pairs) {
            corners.insert(corners.end(), {left, right});
            if (hasRadii) result.numbers("radii", left.markerRadius, right.markerRadius);
        }
        result.corners("corners", corners);
        result.points("points", points);
        result.rects("leftRects", leftRects);
        result.rects("rightRects", rightRects);
        return result;
    }
};

void checkLists(const Results& results) {
    require(results.pairs.empty() || results.pairs.size() == results.points.size(), "a point for each pair");
    for (std::size_t k = 0; k < results.pairs.size(); ++k) {
        const auto& [left, right] = results.pairs[k];
        require(left.id == static_cast<int>(k) && right.id == left.id, "both corners carry the pair's number");
        require(left.matched && right.matched, "both corners are marked");
    }
}

void checkReasons(const Results& results) {
    const ExplainedMatch& explained = results.explained;
    require(explained.pairs.size() == results.pairs.size(), "explained are the pairs of the result");
    if (explained.verdicts.empty()) {
        require(explained.pairs.empty(), "a pair has a verdict");
    } else {
        checkVerdicts(explained.verdicts, explained.pairs, {results.leftRects.size(), results.rightRects.size()});
    }
}

Record recordOf(const Call& call, const Circumstances& circumstances, CircleMarkerExtractor& e) {
    const bool hasRadii = call.configs.useComplexExtract || call.configs.useRadialContours;
    Results results;
    Record membersBefore, members, ending;
    const Record before = results.record(hasRadii);
    membersBefore.members(e);
    const Outcome outcome = results.fill(call, circumstances, e, kNone);
    const Record after = results.record(hasRadii);
    members.members(e);
    ending.outcome(outcome);
    if (outcome.refused()) {
        requireSame(membersBefore, members, "a refused call changes no member");
        requireSame(before, after, "a refused call changes no result");
    }
    require(outcome.end != End::kOutOfRange, "exceptions are those that are told");
    if (outcome.answered()) checkLists(results);
    if (outcome.answered() && circumstances.isAsked) {
        checkReasons(results);
        addReasons(ending, results.explained.verdicts);
    }
    return after + members + ending;
}

void checkOne(Input& input) {
    const RenderedExposure& from = exposure(input.whole(0, kExposureCount - 1));
    const auto path = static_cast<Path>(input.whole(0, kPathCount - 1));
    const int spoiledMembers = input.whole(0, 2), spoiledLeft = input.whole(0, 2), spoiledRight = input.whole(0, 2);
    const auto shared = static_cast<Shared>(input.whole(0, kSharedCount - 1));
    CicrleConfigs configs = goodConfigs(path);
    configs.skipUndistort = configs.cornersRectified = from.isRectified;
    configs = input.spoiled(configs, 3);
    const CircleMarkerExtractor extractor = input.spoiled(from.extractor, spoiledMembers);
    const Call call{input.spoiled(from.image[0], spoiledLeft), input.spoiled(from.image[1], spoiledRight), configs};

    requireSameUnderAll(extractor, [&](const Circumstances& circumstances, CircleMarkerExtractor& e) {
        return recordOf(call, circumstances, e);
    });
    if (shared == kNone) return;
    Results own, others;
    CircleMarkerExtractor e = extractor, sharing = extractor;
    e.markerRects = own.leftRects = own.rightRects = others.leftRects = others.rightRects = sharing.markerRects =
        Rects(1);
    const Outcome first = own.fill(call, {}, e, kNone), second = others.fill(call, {}, sharing, shared);
    if (first.answered() && second.answered())
        requireSame(own.record(false), others.record(false),
                    "the extractor's own list of ellipses will do as a result");
}

}  // namespace
}  // namespace kestrune::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    kestrune::fuzz::Input input(data, size);
    kestrune::fuzz::checkOne(input);
    return 0;
}
