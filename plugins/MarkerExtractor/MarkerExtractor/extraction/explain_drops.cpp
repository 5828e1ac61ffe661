// SPDX-License-Identifier: Apache-2.0
#include "MarkerExtractor/extraction/explain_drops.h"

#include <locale>
#include <optional>
#include <sstream>

#include "MarkerExtractor/extraction/radial_contours.h"
#include "ellipsedetection/contour_tree.h"
#include "ellipsedetection/ellipse_candidates.h"

namespace kestrune {

namespace {

template <typename... Parts>
std::string text(const Parts&... parts) {
    std::ostringstream stream;
    stream.imbue(std::locale::classic());
    (stream << ... << parts);
    return stream.str();
}

const char* nameOf(Met met) {
    switch (met) {
        case Met::kBlob:
            return "blob";
        case Met::kContour:
            return "contour";
        default:
            return "edge";
    }
}

/// In which pixels blobs of the radial and the edge-based path are measured.
std::string pixelsOf(const Drop& drop, const CicrleConfigs& c) {
    if (drop.met != Met::kBlob || c.scale == 1) return "px";
    return text("px of the image reduced by scale ", c.scale);
}

std::optional<DropText> ofRadial(const Drop& drop, const CicrleConfigs& c) {
    switch (drop.cause) {
        case DropCause::kArea:
            return {{"area", text("minContourSize ", c.minContourSize, " or more, ", pixelsOf(drop, c))}};
        case DropCause::kSide:
            return {{"box", text("both sides ", drop.least, " or more, ", pixelsOf(drop, c))}};
        case DropCause::kElongation:
            return {{"elongation", text("a box up to ", drop.largest, " times as long as wide")}};
        case DropCause::kRingContrast:
            return {{"no rim", text("contrast ", c.contrast, " or more, of its mean to the ring around it")}};
        case DropCause::kProbeContrast:
            return {
                {"broken rim", text("contrast ", c.contrast, " along a share of ", drop.least, " of the directions")}};
        case DropCause::kWindow:
            return {{"at the border", text("refineAtFullSize: its box with ", kWindowSigmas, " sigma ", c.sigma,
                                           " and ", kWindowMargin, " px on the image; px beyond")}};
        case DropCause::kNotFoundAgain:
            return {
                {"not found again", text("refineAtFullSize: a blob by thresholdC ", c.thresholdC, " at full size")}};
        case DropCause::kBorder:
            return {{"at the border",
                     text(kOuterReach, " times its half diagonal and ", kCoarseStep, " px on the image; px beyond")}};
        case DropCause::kRays:
            return {{"rays",
                     text("minRayRatio ", c.minRayRatio, " of the rays with a fall of half of contrast ", c.contrast)}};
        case DropCause::kUnevenRays:
            return {{"uneven rays",
                     text("minRayRatio ", c.minRayRatio, " of the rays once those that stand out are left out")}};
        default:
            return std::nullopt;
    }
}

std::optional<DropText> ofEdgeBased(const Drop& drop, const CicrleConfigs& c) {
    const bool isBelow = drop.measured < drop.least;
    switch (drop.cause) {
        case DropCause::kPixels:
            if (isBelow)
                return {{"area", text(kPixelsPerDiameter, " times minDiameter ", c.minDiameter, " or more, ",
                                      pixelsOf(drop, c))}};
            return {{"area",
                     text(kPixelsPerDiameter, " times maxDiameter ", c.maxDiameter, " or less, ", pixelsOf(drop, c))}};
        case DropCause::kLongerSide:
            return {{"box", text("sides of maxDiameter ", c.maxDiameter, " or less, ", pixelsOf(drop, c))}};
        case DropCause::kShorterSide:
            return {{"box", text("sides of minDiameter ", c.minDiameter, " or more, ", pixelsOf(drop, c))}};
        case DropCause::kBoxRatio:
            return {{"box ratio", text("minAxisRatio ", c.minAxisRatio, " or more")}};
        case DropCause::kPerimeterShare:
            return {{"fragment", text("pixels over perimeter of the box ", drop.least, " or more")}};
        case DropCause::kFill:
            return {{"stroke", text("pixels over area of the ellipse in the box ", drop.least, " or more")}};
        case DropCause::kNoRim:
            return {{"no rim", text("one closed line around it: edgePercentile ", c.edgePercentile, ", nmsFactor ",
                                    c.nmsFactor, ", sigma ", c.sigma, "; pixels of the longest line")}};
        case DropCause::kOpenLine:
            return {
                {"open line", text("a closed one: nmsFactor ", c.nmsFactor, ", edgePercentile ", c.edgePercentile)}};
        case DropCause::kNesting:
            return {{"nesting", text("inner over outer area ", kLeastShareOutermost, " or more, ", kLeastShareNested,
                                     " within another line; of a hole up to ", kLargestShare)}};
        default:
            return std::nullopt;
    }
}

std::optional<DropText> ofOther(const Drop& drop, const CicrleConfigs& c) {
    switch (drop.cause) {
        case DropCause::kLength:
            return {{"length", text("minContourSize ", c.minContourSize, " over scale ", c.scale, " or more, px")}};
        case DropCause::kOpenContour:
            return {
                {"open", text("a closed loop: cannyLow ", c.cannyLow, ", sigma ", c.sigma, "; pixels out and back")}};
        case DropCause::kFrame:
            return {
                {"frame", text("no contour of minContourSize ", c.minContourSize, " over scale ", c.scale, " inside")}};
        case DropCause::kWeakEdge:
            return {{"weak", text("one pixel with cannyHigh ", c.cannyHigh, " or more")}};
        case DropCause::kWeakStep:
            return {{"weak", text("one pixel with a sharp step of ", drop.least, " or more, which is fixed")}};
        case DropCause::kInside:
            return {{"inside another", "outermost shapes only; area in px^2"}};
        case DropCause::kGreyLevel:
            return {{"grey level", text("a threshold of ", drop.measured < drop.least ? drop.least : drop.largest,
                                        ", which is fixed; at the one told the gates would take it")}};
        default:
            return std::nullopt;
    }
}

}  // namespace

DropText describe(const Drop& drop, const CicrleConfigs& configs) {
    std::optional<DropText> result = ofRadial(drop, configs);
    if (!result) result = ofEdgeBased(drop, configs);
    if (!result) result = ofOther(drop, configs);
    if (!result) return {};
    return {text(nameOf(drop.met), ": ", result->name), result->wanted};
}

}  // namespace kestrune
