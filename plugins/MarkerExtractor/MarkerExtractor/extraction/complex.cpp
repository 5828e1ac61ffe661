// SPDX-License-Identifier: Apache-2.0
#include "MarkerExtractor/extraction/complex.h"

#include <algorithm>

#include "MarkerExtractor/extraction/plain_road.h"
#include "MarkerExtractor/extraction/rim_markers.h"
#include "MarkerExtractor/extraction/rim_windows.h"
#include "MarkerExtractor/extraction/working_images.h"
#include "MarkerExtractor/extraction/workspace.h"
#include "checks/settings_check.h"
#include "ellipsedetection/ellipse_merging.h"
#include "parallel/parallel_loop.h"

namespace kestrune {

namespace {

using PixelContours = std::vector<std::vector<cv::Point>>;

constexpr std::int64_t kMostPerRim = 1'000'000'000;  ///< ns: of one that goes around the image

std::vector<PassedRim> passFirstStage(const PixelContours& candidates, const RimImages& images, const RimGates& gates,
                                      Findings* findings) {
    std::vector<PassedRim> passed;
    CandidateAccount account(findings, gates);
    RimScratch scratch;
    for (std::size_t k = 0; k < candidates.size(); ++k) {
        RimVerdict verdict = judgeRim(candidates[k], images, gates, scratch);
        account.add(candidates[k], verdict.ellipse.record.ellipse, verdict, std::nullopt);
        if (verdict.accepted()) passed.push_back({k, std::move(verdict.ellipse), std::move(verdict.points), {}});
    }
    return passed;
}

Merging merge(const std::vector<PassedRim>& rims, Findings* findings) {
    std::vector<const PolarEllipse*> ellipses;
    ellipses.reserve(rims.size());
    for (const PassedRim& rim : rims) ellipses.push_back(&rim.ellipse);
    Merging merging = mergeAlike(ellipses, kRimMergeTolerance, kRimMergeTolerance);
    if (findings == nullptr) return merging;
    for (std::size_t k = 0; k < rims.size(); ++k) {
        JudgedCandidate& candidate = findings->candidates[rims[k].candidate];
        candidate.outcome = Outcome::kMerged;
        candidate.rival = static_cast<std::ptrdiff_t>(rims[merging.into[k]].candidate);
    }
    return merging;
}

RimSettings settingsOf(const cv::Mat& image, const CicrleConfigs& configs) {
    requireGreyOrColourImage(image);
    requireScale(configs.scale, image.size());
    return RimSettings::of(configs);
}

/// Of a rim that went on after merging.
void noteMeasured(Findings* findings, std::size_t candidate, const MarkerVerdict& verdict, const RimGates& gates) {
    if (findings == nullptr) return;
    JudgedCandidate& judged = findings->candidates[candidate];
    judged.ellipse = verdict.marker.ellipse;
    judged.outcome = verdict.accepted() ? Outcome::kNested : Outcome::kRefused;
    judged.gate = gates[verdict.refusedBy];
    judged.measured = verdict.measured;
    judged.rival = -1;
}

void noteMarkers(Findings* findings, const std::vector<RimMarker>& markers) {
    if (findings == nullptr) return;
    for (std::size_t k = 0; k < markers.size(); ++k) {
        JudgedCandidate& judged = findings->candidates[markers[k].candidate];
        judged.outcome = Outcome::kMarker;
        judged.marker = static_cast<std::int32_t>(k);
    }
}

std::vector<Corner> numbered(std::vector<RimMarker>&& markers) {
    std::vector<Corner> corners;
    corners.reserve(markers.size());
    for (RimMarker& marker : markers) {
        marker.corner.id = static_cast<std::int32_t>(corners.size());
        corners.push_back(std::move(marker.corner));
    }
    return corners;
}

}  // namespace

RimCall::RimCall(const cv::Mat& image, const CircleMarkerExtractor& extractor, int cameraIndex,
                 const CicrleConfigs& configs)
    : image_(image),
      lens_(lensOf(extractor, cameraIndex, configs)),
      settings_(settingsOf(image, configs)),
      gates_(configs),
      markerName_(configs.markerName) {}

RimImages RimCall::candidates(CircleMarkerExtractor& extractor, PixelContours& candidates, Drops* drops) const {
    const cv::Mat grey = greyOf(image_, extractor);
    const cv::Size size = grey.size();
    const cv::Mat reduced = reducedImage(grey, settings_.scale, extractor);
    // A pixel outside of all windows may be read where an ellipse leaves its window; it must not be a remainder of an
    // earlier image.
    std::ranges::fill(extractor.scratchBlur16, std::uint16_t{0});
    std::ranges::fill(extractor.scratchEdgeMask, uchar{0});
    RimImages images = {
        wrapScratch(extractor.scratchBlur16, size, CV_16UC1), wrapScratch(extractor.scratchGrad, size, CV_32FC1),
        wrapScratch(extractor.scratchDx, size, CV_32FC1), wrapScratch(extractor.scratchDy, size, CV_32FC1)};
    extractor.scratchSmoothing.resize(extractor.scratchBlur16.size());
    cv::Mat edgeMask = wrapScratch(extractor.scratchEdgeMask, size, CV_8UC1);
    cv::Mat binary = wrapScratch(extractor.scratchBinary, reduced.size(), CV_8UC1);
    cv::Mat labels = wrapScratch(extractor.scratchLabels, reduced.size(), CV_32SC1);
    detectEllipseCandidates({reduced, grey, images.blur16U, images.grad, images.dx, images.dy, binary, edgeMask, labels,
                             extractor.scratchSmoothing},
                            settings_, candidates, drops);
    return images;
}

std::vector<Corner> RimCall::run(CircleMarkerExtractor& extractor, Findings* findings) const {
    const ParallelCall call;
    if (findings == nullptr && !takePlainRoad.load(std::memory_order_relaxed)) return runFast(extractor);
    PixelContours found;
    const RimImages images = candidates(extractor, found, dropsOf(findings));
    const std::vector<PassedRim> rims = passFirstStage(found, images, gates_, findings);
    const Merging merging = merge(rims, findings);

    std::vector<RimMarker> markers;
    for (const std::size_t k : merging.kept) {
        const PassedRim& rim = rims[k];
        MarkerVerdict verdict = measureRim(rim.points, images, gates_, lens_);
        noteMeasured(findings, rim.candidate, verdict, gates_);
        if (verdict.accepted()) {
            admitRim(std::move(verdict.marker), rim.ellipse.brightInside, rim.candidate, markers);
        }
    }
    noteMarkers(findings, markers);
    return numbered(std::move(markers));
}

std::vector<Corner> RimCall::runFast(CircleMarkerExtractor& extractor) const {
    const cv::Mat grey = greyOf(image_, extractor);
    const cv::Mat reduced = reducedImage(grey, settings_.scale, extractor);
    Workspace& workspace = workspaceOf(extractor);
    findBrightBlobs(reduced, settings_.aperture, settings_.thresholdC, workspace.blobs, workspace.rims.blobs);
    std::vector<PassedRim> rims = passRims(grey, settings_, gates_, workspace.rims);
    const Merging merging = merge(rims, nullptr);

    std::vector<MarkerVerdict> verdicts(merging.kept.size());
    forEachInParallel(static_cast<int>(verdicts.size()), kMostPerRim, [&](int item) {
        const auto k = static_cast<std::size_t>(item);
        verdicts[k] = measureRefinedRim(std::move(rims[merging.kept[k]].refined), grey.size(), gates_, lens_);
    });
    std::vector<RimMarker> markers;
    for (std::size_t k = 0; k < verdicts.size(); ++k) {
        if (!verdicts[k].accepted()) continue;
        const PassedRim& rim = rims[merging.kept[k]];
        admitRim(std::move(verdicts[k].marker), rim.ellipse.brightInside, rim.candidate, markers);
    }
    return numbered(std::move(markers));
}

bool RimCall::extract(CircleMarkerExtractor& extractor, std::vector<Corner>& corners) const {
    requireEmptyList(corners);
    std::vector<Corner> found = run(extractor, nullptr);
    std::vector<cv::RotatedRect> rects;
    rects.reserve(found.size());
    for (const Corner& corner : found) rects.push_back(corner.ellipse);
    if (!found.empty()) extractor.markerName = markerName_;
    extractor.markerRects = std::move(rects);
    corners = std::move(found);
    return !corners.empty();
}

bool CircleMarkerExtractor::CircleExtractComplex(const cv::Mat& image, std::vector<Corner>& corners, int cameraIndex,
                                                 const CicrleConfigs& configs) {
    if (image.empty()) {
        markerRects.clear();
        return false;
    }
    return RimCall(image, *this, cameraIndex, configs).extract(*this, corners);
}

}  // namespace kestrune
