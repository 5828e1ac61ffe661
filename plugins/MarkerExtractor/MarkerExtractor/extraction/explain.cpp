// SPDX-License-Identifier: Apache-2.0
#include "MarkerExtractor/extraction/explain.h"

#include <algorithm>
#include <limits>
#include <locale>
#include <sstream>

#include "MarkerExtractor/extraction/ellipse_gates.h"
#include "MarkerExtractor/extraction/fast.h"
#include "MarkerExtractor/extraction/front_ends.h"
#include "MarkerExtractor/extraction/hand.h"
#include "MarkerExtractor/extraction/rim_gates.h"
#include "MarkerExtractor/extraction/working_images.h"
#include "checks/settings_check.h"

namespace kestrune {

namespace {

using Candidates = std::vector<ExplainedCandidate>;

constexpr double kNoNumber = std::numeric_limits<double>::quiet_NaN();

template <typename... Parts>
std::string text(const Parts&... parts) {
    std::ostringstream stream;
    stream.imbue(std::locale::classic());
    (stream << ... << parts);
    return stream.str();
}

struct GateText {
    const char* name;
    std::string wanted;
};

GateText describe(Gate gate, const CicrleConfigs& c) {
    switch (gate) {
        case Gate::kArea:
            return {"area", text("minArea ", c.minArea, " to maxArea ", c.maxArea)};
        case Gate::kCompactness:
            return {"compactness", "perimeter squared over area, 4 pi to 8 pi"};
        case Gate::kFit:
            return {"fit", "a finite ellipse"};
        case Gate::kEccentricity:
            return {"eccentricity", text("maxEccentricity ", c.maxEccentricity)};
        case Gate::kCircularity:
            return {"circularity",
                    text("minCircularity ", c.minCircularity, " to below maxCircularity ", c.maxCircularity)};
        case Gate::kConvexity:
            return {"convexity", text("minConvexRatio ", c.minConvexRatio, " to maxConvexRatio ", c.maxConvexRatio)};
        case Gate::kFitError:
            return {"fit error",
                    text("maxFitError ", c.maxFitError, ", or no point beyond maxPointError ", c.maxPointError)};
        case Gate::kFitResidual:
            return {"fit residual", text("maxFitResidual ", c.maxFitResidual)};
        case Gate::kPerimeter:
            return {"perimeter", "ellipse over contour length, 0.8 to 1.25"};
        default:
            return {"", ""};
    }
}

GateText describe(RimGate gate, const CicrleConfigs& c) {
    switch (gate) {
        case RimGate::kLength:
            return {"length",
                    text("0.7 pi times minDiameter ", c.minDiameter, " to maxDiameter ", c.maxDiameter, ", in pixels")};
        case RimGate::kSize:
            return {"size", text("axes between minDiameter ", c.minDiameter, " and maxDiameter ", c.maxDiameter)};
        case RimGate::kPlace:
        case RimGate::kFinalPlace:
            return {"place", "a centre within the image"};
        case RimGate::kAxisRatio:
        case RimGate::kFinalAxisRatio:
            return {"axis ratio", text("minAxisRatio ", c.minAxisRatio)};
        case RimGate::kResidual:
            return {"fit residual", text("5 times maxFitResidual ", c.maxFitResidual, ", before refinement")};
        case RimGate::kGradient:
            return {"gradient", "0.1 or more in sum across the rim"};
        case RimGate::kContrast:
            return {"contrast", "the bright side a twentieth brighter, halfway to the centre over rim"};
        case RimGate::kHull:
            return {"hull", "hull over ellipse area, 0.8 to 1.25"};
        case RimGate::kPoints:
            return {"points", "five refined points"};
        case RimGate::kFinalSize:
            return {"size", text("axes whose product is 4 times the square of minDiameter ", c.minDiameter)};
        case RimGate::kFinalResidual:
            return {"fit residual", text("maxFitResidual ", c.maxFitResidual)};
        default:
            return {"", ""};
    }
}

void setGate(ExplainedCandidate& candidate, const GateText& gateText, double measured) {
    candidate.gate = gateText.name;
    candidate.wanted = gateText.wanted;
    candidate.measured = measured;
}

/// A candidate that passed all gates and whose place another one has.
void yieldTo(ExplainedCandidate& candidate, const char* gate, const char* wanted, std::int32_t marker) {
    candidate.gate = gate;
    candidate.wanted = wanted;
    candidate.measured = kNoNumber;
    candidate.marker = marker;
}

/// Gates and then admission, one contour after the other.
///
/// @param describeGate  what a gate asks for on this path.
/// @param repeats       which of two repetitions stays.
template <typename Point, typename Judge, typename Admit, typename Describe>
Candidates explainInTurn(const std::vector<std::vector<Point>>& contours, const Judge& judge, const Admit& admit,
                         const Describe& describeGate, const char* repeats) {
    std::vector<std::size_t> holders;  // of each marker: the candidate that it is
    Candidates candidates;
    for (const std::vector<Point>& contour : contours) {
        ExplainedCandidate& candidate = candidates.emplace_back();
        candidate.contour.assign(contour.begin(), contour.end());
        auto verdict = judge(contour);
        candidate.ellipse = verdict.rect;
        if (!verdict.accepted()) {
            setGate(candidate, describeGate(verdict.refusedBy), verdict.measured);
            continue;
        }
        const Admission admission = admit(verdict);
        candidate.marker = admission.id;
        if (admission.outcome == Admission::kDropped) {
            yieldTo(candidate, "repetition", repeats, admission.id);
        } else if (admission.outcome == Admission::kReplaced) {
            std::size_t& holder = holders[static_cast<std::size_t>(admission.id)];
            yieldTo(candidates[holder], "repetition", repeats, admission.id);
            holder = candidates.size() - 1;
        } else {
            holders.push_back(candidates.size() - 1);
        }
    }
    return candidates;
}

Candidates explainSimple(const cv::Mat& image, CircleMarkerExtractor& extractor, int cameraIndex,
                         const CicrleConfigs& configs, Drops* drops) {
    std::vector<Corner> corners;
    MarkerList markers{corners, {}, 0};
    const LensModel lens = lensOf(extractor, cameraIndex, configs);
    std::vector<std::vector<cv::Point2f>> contours;
    for (SubpixelContour& contour : simpleContours(image, corners, extractor, configs, drops)) {
        contours.push_back(std::move(contour.points));
    }
    return explainInTurn(
        contours, [&](const auto& contour) { return judgeContour(contour, configs, lens, kContoursAreFullSize); },
        [&](GateVerdict& verdict) { return admitMarker(verdict, markers); },
        [&](Gate gate) { return describe(gate, configs); }, "the rounder and better fit of two that share a centre");
}

/// First stage and merging: fills `kept` with the candidates whose rims go on, in the order of the merged list.
void explainFirstStage(const std::vector<std::vector<cv::Point>>& contours, const RimImages& images,
                       const CicrleConfigs& configs, Candidates& candidates, std::vector<PolarEllipse>& merged,
                       std::vector<std::vector<cv::Point>>& mergedRims, std::vector<std::size_t>& kept) {
    std::vector<PolarEllipse> ellipses;
    std::vector<std::vector<cv::Point>> rims;
    std::vector<std::size_t> passed;
    RimScratch scratch;
    for (const std::vector<cv::Point>& contour : contours) {
        ExplainedCandidate& candidate = candidates.emplace_back();
        candidate.contour.assign(contour.begin(), contour.end());
        RimVerdict verdict = judgeRim(contour, images, configs, scratch);
        candidate.ellipse = verdict.ellipse.record.ellipse;
        if (!verdict.accepted()) {
            setGate(candidate, describe(verdict.refusedBy, configs), verdict.measured);
            continue;
        }
        passed.push_back(candidates.size() - 1);
        ellipses.push_back(std::move(verdict.ellipse));
        rims.push_back(std::move(verdict.points));
    }
    mergeSimilarEllipses(ellipses, rims, merged, mergedRims, kRimMergeTolerance, kRimMergeTolerance);
    for (const std::size_t index : passed) {
        yieldTo(candidates[index], "merged", "the best fit of ellipses alike to 30 %", -1);
    }
    for (std::size_t m = 0; m < merged.size(); ++m) {
        std::size_t k = 0;  // overlapping windows give a rim twice, alike to the last bit: the first one is taken
        while (rims[k] != mergedRims[m] || ellipses[k].brightInside != merged[m].brightInside) ++k;
        kept.push_back(passed[k]);
    }
}

Candidates explainRims(const cv::Mat& image, CircleMarkerExtractor& extractor, int cameraIndex,
                       const CicrleConfigs& configs, Drops* drops) {
    std::vector<std::vector<cv::Point>> contours, mergedRims;
    const RimImages images = rimCandidates(image, {}, extractor, configs, contours, drops);
    Candidates candidates;
    std::vector<PolarEllipse> merged;
    std::vector<std::size_t> kept;
    explainFirstStage(contours, images, configs, candidates, merged, mergedRims, kept);

    RimMarkers markers;
    for (std::size_t k = 0; k < merged.size(); ++k) {
        ExplainedCandidate& candidate = candidates[kept[k]];
        MarkerVerdict verdict = measureRim(mergedRims[k], images, configs, lensOf(extractor, cameraIndex, configs));
        candidate.ellipse = verdict.marker.ellipse;
        if (!verdict.accepted()) {
            setGate(candidate, describe(verdict.refusedBy, configs), verdict.measured);
            continue;
        }
        verdict.marker.id = static_cast<std::int32_t>(kept[k]);  // until the markers that stand are known
        yieldTo(candidate, "nested", "the inner rim of two of one polarity, or the better fit", -1);
        admitRim(std::move(verdict.marker), merged[k].brightInside, markers);
    }
    for (std::size_t k = 0; k < markers.corners.size(); ++k) {
        ExplainedCandidate& candidate = candidates[static_cast<std::size_t>(markers.corners[k].id)];
        yieldTo(candidate, "", "", static_cast<std::int32_t>(k));
        candidate.measured = 0;
    }
    return candidates;
}

}  // namespace

std::vector<ExplainedCandidate> explainExtraction(const cv::Mat& image, CircleMarkerExtractor& extractor,
                                                  int cameraIndex, const CicrleConfigs& configs, Drops* drops) {
    if (image.empty()) return {};
    return configs.useComplexExtract ? explainRims(image, extractor, cameraIndex, configs, drops)
                                     : explainSimple(image, extractor, cameraIndex, configs, drops);
}

std::vector<ExplainedCandidate> explainHand(const cv::Mat& image, const CicrleConfigs& configs, Drops* drops) {
    if (image.empty()) return {};
    requireByteImage(image);
    if (drops != nullptr) noteHandDrops(image, *drops);
    std::vector<Corner> corners;
    return explainInTurn(
        handContours(image), [&](const auto& contour) { return judgeHandContour(contour, configs); },
        [&](const GateVerdict& verdict) { return admitHandMarker(verdict, corners); },
        [&](Gate gate) {
            // The whole contour decides here, whatever its worst point.
            if (gate == Gate::kFitError) return GateText{"fit error", text("maxFitError ", configs.maxFitError)};
            return describe(gate, configs);
        },
        "the smaller of two that share a centre");
}

std::vector<ExplainedCandidate> explainFast(const cv::Mat& image, const CicrleConfigs& configs, Drops* drops) {
    if (image.empty()) return {};
    requireGreyImage(image);
    if (drops != nullptr) noteFastDrops(image, configs, *drops);
    std::vector<cv::Point> hull;
    std::int32_t next = 0;
    return explainInTurn(
        fastContours(image), [&](const auto& contour) { return judgeFastContour(contour, configs, hull); },
        [&](const FastVerdict&) {
            return Admission{Admission::kAdded, next++};
        },
        [&](Gate gate) {
            if (gate == Gate::kArea)
                return GateText{"area", text("minArea ", configs.minArea, " to below maxArea ", configs.maxArea)};
            return describe(gate, configs);
        },
        "");
}

}  // namespace kestrune
