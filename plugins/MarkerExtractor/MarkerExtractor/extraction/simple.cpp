// SPDX-License-Identifier: Apache-2.0
#include "MarkerExtractor/extraction/simple.h"

#include <algorithm>
#include <cmath>
#include <numbers>

#include "MarkerExtractor/extraction/plain_road.h"
#include "MarkerExtractor/extraction/radial_fast.h"
#include "MarkerExtractor/extraction/working_images.h"
#include "MarkerExtractor/extraction/workspace.h"
#include "checks/settings_check.h"
#include "parallel/parallel_loop.h"

namespace kestrune {

namespace {

constexpr std::size_t kRays = 72;
constexpr std::size_t kProbes = 24;
constexpr std::size_t kPortion = 1024;  ///< contours whose verdicts are kept until it is their turn to be admitted
constexpr std::int64_t kMostPerContour = 1'000'000'000;  ///< ns: a contour may have as many points as the image

/// Entry i of n is (cos a, sin a) with a = 2 pi i / n, in single precision. A table that is there is left alone.
void fillDirections(std::vector<cv::Point2f>& directions, std::size_t n) {
    if (!directions.empty()) return;
    directions.reserve(n);
    for (std::size_t i = 0; i < n; ++i) {
        const auto angle = static_cast<float>(static_cast<double>(i) * (2 * std::numbers::pi) / static_cast<double>(n));
        directions.emplace_back(std::cos(angle), std::sin(angle));
    }
}

std::vector<SubpixelContour> radialContours(const cv::Mat& grey, const cv::Mat& working,
                                            CircleMarkerExtractor& extractor, const RadialSettings& settings,
                                            const Findings* findings) {
    fillDirections(extractor.rayDirections, kRays);
    fillDirections(extractor.probeDirections, kProbes);
    const RadialDirections directions = {extractor.rayDirections, extractor.probeDirections};
    std::vector<SubpixelContour> contours;
    if (findings == nullptr && !takePlainRoad) {
        detectRadialContoursFast(working, grey, settings, directions, workspaceOf(extractor).radial, contours);
        return contours;
    }
    cv::Mat blurredFull = wrapScratch(extractor.scratchBlurFull, grey.size(), CV_8UC1);
    cv::Mat binary = wrapScratch(extractor.scratchEdgeMask, working.size(), CV_8UC1);
    cv::Mat fullBinary = wrapScratch(extractor.scratchBinary, grey.size(), CV_8UC1);
    cv::Mat labels = wrapScratch(extractor.scratchLabels, working.size(), CV_32SC1);
    detectRadialContours({working, grey, blurredFull, binary, fullBinary, labels}, settings, directions, contours,
                         dropsOf(findings));
    return contours;
}

/// The scale first: the settings of the sub-pixel contours divide by it.
std::variant<EdgeSettings, RadialSettings> frontEndOf(const cv::Mat& image, const CircleMarkerExtractor& extractor,
                                                      const CicrleConfigs& configs) {
    requireGreyOrColourImage(image);
    requireScale(configs.scale, image.size());
    if (!configs.useRadialContours) return EdgeSettings(configs);
    const RadialSettings settings = RadialSettings::of(configs);
    requireUnitVectors(extractor.rayDirections, "rayDirections");
    requireUnitVectors(extractor.probeDirections, "probeDirections");
    return settings;
}

}  // namespace

SimpleCall::SimpleCall(const cv::Mat& image, const CircleMarkerExtractor& extractor, int cameraIndex,
                       const CicrleConfigs& configs)
    : image_(image),
      scale_(configs.scale),
      lens_(lensOf(extractor, cameraIndex, configs)),
      frontEnd_(frontEndOf(image, extractor, configs)),
      gates_(configs),
      markerName_(configs.markerName) {}

std::vector<SubpixelContour> SimpleCall::contours(CircleMarkerExtractor& extractor, const Findings* findings) const {
    const cv::Mat grey = greyOf(image_, extractor);
    const cv::Mat working = reducedImage(grey, scale_, extractor);
    if (const auto* const radial = std::get_if<RadialSettings>(&frontEnd_)) {
        return radialContours(grey, working, extractor, *radial, findings);
    }
    const EdgeSettings& settings = std::get<EdgeSettings>(frontEnd_);
    std::vector<SubpixelContour> contours;
    const bool isDone = findings == nullptr && !takePlainRoad &&
                        detectContourPoints(working, settings, workspaceOf(extractor).edges, contours);
    if (!isDone) detectSubpixelContours(working, settings, contours, dropsOf(findings));
    return contours;
}

std::vector<cv::RotatedRect> SimpleCall::run(CircleMarkerExtractor& extractor, std::vector<Corner>& corners,
                                             Findings* findings) const {
    const ParallelCall call;
    requireEmptyList(corners);
    MarkerList markers{corners, {}, 0};
    CandidateAccount account(findings, gates_);
    const std::vector<SubpixelContour> candidates = contours(extractor, findings);
    std::vector<GateVerdict> verdicts(std::min(candidates.size(), kPortion));
    for (std::size_t begin = 0; begin < candidates.size(); begin += kPortion) {
        const std::size_t count = std::min(candidates.size() - begin, kPortion);
        forEachInParallel(static_cast<int>(count), kMostPerContour, [&](int item) {
            const auto k = static_cast<std::size_t>(item);
            verdicts[k] = judgeContour(candidates[begin + k].points, gates_, lens_);
        });
        for (std::size_t k = 0; k < count; ++k) {
            GateVerdict& verdict = verdicts[k];
            std::optional<Admission> admission;
            if (verdict.accepted()) admission = admitMarker(verdict, markers);
            account.add(candidates[begin + k].points, verdict.rect, verdict, admission);
        }
    }
    return std::move(markers.rects);
}

bool SimpleCall::extract(CircleMarkerExtractor& extractor, std::vector<Corner>& corners) const {
    extractor.markerRects = run(extractor, corners, nullptr);
    if (!corners.empty()) extractor.markerName = markerName_;
    return !corners.empty();
}

bool CircleMarkerExtractor::CircleExtractSimple(const cv::Mat& image, std::vector<Corner>& corners, int cameraIndex,
                                                const CicrleConfigs& configs) {
    if (image.empty()) {
        markerRects.clear();
        return false;
    }
    return SimpleCall(image, *this, cameraIndex, configs).extract(*this, corners);
}

}  // namespace kestrune
