// SPDX-License-Identifier: Apache-2.0
#include <algorithm>
#include <cmath>

#include "MarkerExtractor/extraction/front_ends.h"
#include "MarkerExtractor/extraction/rim_gates.h"
#include "MarkerExtractor/extraction/working_images.h"
#include "checks/settings_check.h"
#include "ellipsedetection/ellipse_candidates.h"
#include "kestrune/MarkerExtractor.h"

namespace kestrune {

namespace {

/// Whole pixels, cut off towards zero. Infinity, for "no bound", becomes a number that no diameter reaches.
int wholePixels(float diameter) {
    constexpr float kLargest = 1e9f;
    return static_cast<int>(std::clamp(diameter, -kLargest, kLargest));
}

RimMarkers measureRims(const std::vector<std::vector<cv::Point>>& candidates, const RimImages& images,
                       const CicrleConfigs& configs, const LensModel& lens) {
    std::vector<PolarEllipse> ellipses, merged;
    std::vector<std::vector<cv::Point>> rims, mergedRims;
    RimScratch scratch;
    for (const std::vector<cv::Point>& candidate : candidates) {
        RimVerdict verdict = judgeRim(candidate, images, configs, scratch);
        if (!verdict.accepted()) continue;
        ellipses.push_back(std::move(verdict.ellipse));
        rims.push_back(std::move(verdict.points));
    }
    mergeSimilarEllipses(ellipses, rims, merged, mergedRims, kRimMergeTolerance, kRimMergeTolerance);

    RimMarkers markers;
    for (std::size_t k = 0; k < merged.size(); ++k) {
        MarkerVerdict verdict = measureRim(mergedRims[k], images, configs, lens);
        if (verdict.accepted()) admitRim(std::move(verdict.marker), merged[k].brightInside, markers);
    }
    return markers;
}

}  // namespace

void checkRimCall(const cv::Mat& image, const CicrleConfigs& configs) {
    requireGreyOrColourImage(image);
    requireScale(configs.scale, image.size());
    requireAperture(configs.aperture, kLeastThresholdBlock);
    requireBlurSigma(configs.sigma);
    if (std::isnan(configs.minDiameter)) refuseSetting("minDiameter", "is not a number");
    if (std::isnan(configs.maxDiameter)) refuseSetting("maxDiameter", "is not a number");
}

RimImages rimCandidates(const cv::Mat& image, const std::vector<Corner>& corners, CircleMarkerExtractor& extractor,
                        const CicrleConfigs& configs, std::vector<std::vector<cv::Point>>& candidates, Drops* drops) {
    checkRimCall(image, configs);
    requireEmptyList(corners);
    const cv::Mat grey = greyOf(image, extractor);
    const cv::Size size = grey.size();
    const cv::Mat reduced = reducedImage(grey, configs.scale, extractor);
    // A pixel outside of all windows may be read where an ellipse leaves its window; it must not be a remainder of an
    // earlier image.
    std::fill(extractor.scratchBlur16.begin(), extractor.scratchBlur16.end(), std::uint16_t{0});
    std::fill(extractor.scratchEdgeMask.begin(), extractor.scratchEdgeMask.end(), uchar{0});
    RimImages images = {
        wrapScratch(extractor.scratchBlur16, size, CV_16UC1), wrapScratch(extractor.scratchGrad, size, CV_32FC1),
        wrapScratch(extractor.scratchDx, size, CV_32FC1), wrapScratch(extractor.scratchDy, size, CV_32FC1)};
    extractor.scratchSmoothing.resize(extractor.scratchBlur16.size());
    cv::Mat edgeMask = wrapScratch(extractor.scratchEdgeMask, size, CV_8UC1);
    cv::Mat binary = wrapScratch(extractor.scratchBinary, reduced.size(), CV_8UC1);
    cv::Mat labels = wrapScratch(extractor.scratchLabels, reduced.size(), CV_32SC1);
    detectEllipseCandidates(
        {reduced, grey, images.blur16U, images.grad, images.dx, images.dy, binary, edgeMask, labels,
         extractor.scratchSmoothing},
        {static_cast<float>(configs.sigma), configs.aperture, configs.thresholdC, configs.scale, configs.edgePercentile,
         configs.nmsFactor, configs.minAxisRatio, wholePixels(configs.minDiameter), wholePixels(configs.maxDiameter)},
        candidates, drops);
    return images;
}

bool CircleMarkerExtractor::CircleExtractComplex(const cv::Mat& image, std::vector<Corner>& corners, int cameraIndex,
                                                 const CicrleConfigs& configs) {
    if (image.empty()) {
        markerRects.clear();
        return false;
    }
    const LensModel lens = lensOf(*this, cameraIndex, configs);
    std::vector<std::vector<cv::Point>> candidates;
    const RimImages images = rimCandidates(image, corners, *this, configs, candidates, nullptr);
    RimMarkers markers = measureRims(candidates, images, configs, lens);

    // Nothing of the result is written before all of it is there.
    if (!markers.corners.empty()) markerName = configs.markerName;
    for (std::size_t k = 0; k < markers.corners.size(); ++k) markers.corners[k].id = static_cast<std::int32_t>(k);
    markerRects = std::move(markers.rects);
    corners = std::move(markers.corners);
    return !corners.empty();
}

}  // namespace kestrune
