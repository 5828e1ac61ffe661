// SPDX-License-Identifier: Apache-2.0
#include <cmath>
#include <numbers>
#include <opencv2/imgproc.hpp>

#include "MarkerExtractor/extraction/ellipse_gates.h"
#include "MarkerExtractor/extraction/front_ends.h"
#include "MarkerExtractor/extraction/radial_contours.h"
#include "MarkerExtractor/extraction/working_images.h"
#include "canny/subpixel_contours.h"
#include "checks/settings_check.h"
#include "kestrune/MarkerExtractor.h"

namespace kestrune {

namespace {

constexpr std::size_t kRays = 72;
constexpr std::size_t kProbes = 24;

/// Entry i of n is (cos a, sin a) with a = 2 pi i / n, in single precision. A table that is there is left alone.
void fillDirections(std::vector<cv::Point2f>& directions, std::size_t n) {
    if (!directions.empty()) return;
    directions.reserve(n);
    for (std::size_t i = 0; i < n; ++i) {
        const auto angle = static_cast<float>(static_cast<double>(i) * (2 * std::numbers::pi) / static_cast<double>(n));
        directions.emplace_back(std::cos(angle), std::sin(angle));
    }
}

void findRadialContours(const cv::Mat& gray, const cv::Mat& working, CircleMarkerExtractor& extractor,
                        const CicrleConfigs& configs, std::vector<SubpixelContour>& contours, Drops* drops) {
    fillDirections(extractor.rayDirections, kRays);
    fillDirections(extractor.probeDirections, kProbes);
    cv::Mat blurredFull = wrapScratch(extractor.scratchBlurFull, gray.size(), CV_8UC1);
    cv::Mat binary = wrapScratch(extractor.scratchEdgeMask, working.size(), CV_8UC1);
    cv::Mat fullBinary = wrapScratch(extractor.scratchBinary, gray.size(), CV_8UC1);
    cv::Mat labels = wrapScratch(extractor.scratchLabels, working.size(), CV_32SC1);
    // The size limit is an area here and is not divided by `scale`; the other front end takes it as a length and
    // divided.
    detectRadialContours({working, gray, blurredFull, binary, fullBinary, labels},
                         {configs.sigma, configs.aperture, configs.minContourSize, configs.thresholdC, configs.scale,
                          configs.refineAtFullSize, configs.minRayRatio, configs.contrast},
                         extractor.rayDirections, extractor.probeDirections, contours, drops);
}

}  // namespace

void checkSimpleCall(const cv::Mat& image, const CircleMarkerExtractor& extractor, const CicrleConfigs& configs) {
    requireGreyOrColourImage(image);
    requireScale(configs.scale, image.size());
    if (configs.useRadialContours) {
        requireAperture(configs.aperture, kLeastThresholdBlock);
        requireBlurSigma(configs.sigma);
        requireUnitVectors(extractor.rayDirections, "rayDirections");
        requireUnitVectors(extractor.probeDirections, "probeDirections");
    } else {
        requireAperture(configs.aperture, 1);
        requireEdgeSigma(configs.sigma);
    }
}

std::vector<SubpixelContour> simpleContours(const cv::Mat& image, const std::vector<Corner>& corners,
                                            CircleMarkerExtractor& extractor, const CicrleConfigs& configs,
                                            Drops* drops) {
    checkSimpleCall(image, extractor, configs);
    requireEmptyList(corners);
    const cv::Mat gray = greyOf(image, extractor);
    const cv::Mat working = reducedImage(gray, configs.scale, extractor);
    std::vector<SubpixelContour> contours;
    if (configs.useRadialContours) {
        findRadialContours(gray, working, extractor, configs, contours, drops);
    } else {
        detectSubpixelContours(
            working,
            {configs.sigma, static_cast<unsigned>(configs.aperture), configs.cannyLow, configs.cannyHigh,
             configs.minContourSize / configs.scale, cv::RETR_TREE, configs.useThreads},
            contours, drops);
    }
    return contours;
}

bool CircleMarkerExtractor::CircleExtractSimple(const cv::Mat& image, std::vector<Corner>& corners, int cameraIndex,
                                                const CicrleConfigs& configs) {
    if (image.empty()) {
        markerRects.clear();
        return false;
    }
    const LensModel lens = lensOf(*this, cameraIndex, configs);
    const std::vector<SubpixelContour> contours = simpleContours(image, corners, *this, configs, nullptr);
    MarkerList markers{corners, {}, 0};
    for (const SubpixelContour& contour : contours) {
        GateVerdict verdict = judgeContour(contour.points, configs, lens, kContoursAreFullSize);
        if (verdict.accepted()) admitMarker(verdict, markers);
    }
    markerRects = std::move(markers.rects);
    if (corners.empty()) return false;
    markerName = configs.markerName;
    return true;
}

}  // namespace kestrune
