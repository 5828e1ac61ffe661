// SPDX-License-Identifier: Apache-2.0
//
// Every way from an image to markers, from a rendered exposure of which a little is spoiled.
#include <cmath>

#include <opencv2/imgproc.hpp>

#include "edge_twins.h"
#include "fuzz_input.h"
#include "promises.h"
#include "reasons.h"

namespace kestrune::fuzz {
namespace {

enum Way { kFrontDoor, kSimple, kComplex, kFast, kHand, kWayCount };

struct Call {
    int way, eye;
    cv::Mat image;
    CicrleConfigs configs;
    CircleMarkerExtractor extractor;
    std::vector<Corner> corners;  ///< what is in the list before
    bool explains;                ///< where reasons are asked for

    bool run(CircleMarkerExtractor& e, cv::Mat& pixels, std::vector<Corner>& list) const {
        switch (way) {
            case kFrontDoor:
                return ExtractCircleMarker(pixels, e, list, eye, configs);
            case kSimple:
                return e.CircleExtractSimple(pixels, list, eye, configs);
            case kComplex:
                return e.CircleExtractComplex(pixels, list, eye, configs);
            case kFast:
                return e.extractMarkPointsFast(pixels, list, eye, configs);
            default:
                return e.CircleExtractSimpleForHand(pixels, list, eye, configs);
        }
    }
    std::vector<ExplainedCandidate> explain(CircleMarkerExtractor& e, const cv::Mat& pixels, Drops* drops) const {
        if (way == kFast) return explainFast(pixels, configs, drops);
        if (way == kHand) return explainHand(pixels, configs, drops);
        CicrleConfigs c = configs;
        if (way != kFrontDoor) c.useComplexExtract = way == kComplex;
        return explainExtraction(pixels, e, eye, c, drops);
    }
    bool fillsRects() const { return way <= kComplex; }
    bool fillsConics() const {
        const bool isRadial = way != kComplex && configs.useRadialContours;
        return way == kComplex || (way == kFrontDoor && configs.useComplexExtract) || (fillsRects() && isRadial);
    }
};

Record recordOf(const cv::Mat& image) {
    Record record;
    record.matrix("image", image);
    return record;
}

void checkLists(const Call& call, const CircleMarkerExtractor& e, const std::vector<Corner>& corners, bool found) {
    // An empty image is answered before the list is looked at, which may hold markers from before.
    require(found == (!call.image.empty() && !corners.empty()), "the result says whether there are markers");
    if (call.image.empty()) {
        require(corners.size() == call.corners.size(), "an empty image adds no marker");
        return;
    }
    for (std::size_t k = call.corners.size(); k < corners.size(); ++k) {
        const Corner& c = corners[k];
        require(std::isfinite(c.x) && std::isfinite(c.y), "an ellipse that is not finite is no marker");
        if (!call.fillsRects()) continue;
        require(c.id == static_cast<int>(k), "ids count the list");
        require(c.conicValid == call.fillsConics() && c.scatter.rows() == (c.conicValid ? 6 : 0),
                "conics where the path fits them");
    }
    if (call.fillsRects()) require(e.markerRects.size() == corners.size(), "an ellipse for each marker");
}

/// Asked of an extractor that has taken the path, so that its tables are there, why these were the markers.
void explain(const Call& call, const Circumstances& circumstances, CircleMarkerExtractor& e,
             const std::vector<Corner>& markers, Record& record) {
    const cv::Mat image = circumstances.imageOf(call.image);
    Record before, after, plain, dropsToo;
    before.members(e);
    std::vector<ExplainedCandidate> candidates;
    Drops drops;
    const Outcome outcome = outcomeOf([&] { candidates = call.explain(e, image, &drops); });
    require(outcome.answered(), "what a path answers it can explain");
    after.members(e);
    requireSame(before, after, "an explanation changes no member");
    requireSame(recordOf(call.image), recordOf(image), "an explanation changes no image");
    checkCandidates(candidates, markers);
    checkDrops(drops, call.configs, image.size());
    addReasons(plain, call.explain(e, image, nullptr));
    addReasons(dropsToo, candidates);
    requireSame(plain, dropsToo, "candidates are the same with and without what was dropped");
    addReasons(record, candidates);
    addReasons(record, drops);
}

Record recordOf(const Call& call, const Circumstances& circumstances, CircleMarkerExtractor& e) {
    cv::Mat image = circumstances.imageOf(call.image);
    std::vector<Corner> corners = call.corners;
    bool found = false;
    Record before, after, result;
    before.members(e);
    before.corners("corners", corners);
    const Outcome outcome = outcomeOf([&] { found = call.run(e, image, corners); });
    after.members(e);
    after.corners("corners", corners);
    if (outcome.refused()) requireSame(before, after, "a refused call changes nothing");
    require(outcome.end != End::kOutOfRange && outcome.end != End::kNoEigen, "exceptions are those that are told");
    requireSame(recordOf(call.image), recordOf(image), "the image stays as it is");
    if (outcome.answered()) checkLists(call, e, corners, found);
    if (call.explains && circumstances.isAsked && outcome.answered()) explain(call, circumstances, e, corners, result);
    result.outcome(outcome);
    result.numbers("found", found);
    result.corners("corners", corners);
    result.members(e);
    return result;
}

/// Rings and discs about the rims of markers: nested, broken and overlapping ones.
void drawOver(cv::Mat& image, const std::vector<Corner>& markers, Input& input) {
    for (int k = input.whole(0, 3); k > 0; --k) {
        const Corner& marker = input.oneOf(markers);
        const cv::Point at(static_cast<int>(marker.x) + input.whole(-6, 6),
                           static_cast<int>(marker.y) + input.whole(-6, 6));
        const int axis = input.whole(1, 16), grey = input.whole(0, 255);
        const cv::Size axes(axis, input.flag() ? axis : input.whole(1, 16));
        cv::ellipse(image, at, axes, input.whole(0, 90), input.isOdd() ? input.whole(0, 360) : 0, 360,
                    cv::Scalar::all(grey), input.whole(-1, 2), input.flag() ? cv::LINE_AA : cv::LINE_8);
        if (input.flag()) cv::GaussianBlur(image, image, {0, 0}, 0.7);
    }
}

cv::Mat imageFor(int way, const cv::Mat& rendered, const std::vector<Corner>& markers, Input& input) {
    cv::Mat image = input.spoiled(rendered, 5);
    if (image.empty() || image.dims != 2) return image;
    if (image.depth() == CV_8U && input.flag()) drawOver(image, markers, input);
    if (way != kHand) return image;
    image.convertTo(image, -1, 1.6, -60);  // the way by hand sees stronger edges alone than those of the rendered discs
    if (image.type() == CV_8UC1 && !input.isOdd()) cv::merge(std::vector<cv::Mat>(3, image), image);
    return image;
}

void checkOne(Input& input) {
    Call call{};
    call.way = input.whole(0, kWayCount - 1);
    const int path = call.way == kComplex ? static_cast<int>(kRims) : input.whole(0, kPathCount - 1);
    const RenderedExposure& from = exposure(input.whole(0, kExposureCount - 1));
    call.eye = input.whole(0, 1);
    call.explains = input.flag();
    const bool spoilsMembers = input.isOdd(), isListFull = input.isOdd();
    call.configs = input.spoiled(goodConfigs(static_cast<Path>(path)), 4);
    if (input.flag()) call.configs.scale = input.whole(1, 3), call.configs.refineAtFullSize = input.flag();
    call.image = imageFor(call.way, from.image[static_cast<std::size_t>(call.eye)], from.found[kRadial].left, input);
    call.extractor = spoilsMembers ? input.spoiled(from.extractor, 2) : from.extractor;
    if (input.isOdd()) call.extractor.leftDistortion = call.extractor.rightDistortion = input.distortion();
    if (isListFull) call.corners = from.found[kRadial].left;
    call.explains = call.explains && !isListFull;

    requireSameUnderAll(call.extractor, [&](const Circumstances& circumstances, CircleMarkerExtractor& e) {
        return recordOf(call, circumstances, e);
    });
    if (!call.image.empty() && call.image.dims == 2 && call.image.type() == CV_8UC1 && input.isOdd())
        checkEdgeTwins(call.image, input);
}

}  // namespace
}  // namespace kestrune::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    kestrune::fuzz::Input input(data, size);
    kestrune::fuzz::checkOne(input);
    return 0;
}
