// SPDX-License-Identifier: Apache-2.0
#include "ellipsedetection/ellipse_candidates.h"

#include <algorithm>
#include <cmath>
#include <opencv2/imgproc.hpp>

#include "checks/settings_check.h"
#include "ellipsedetection/rim_search.h"
#include "ellipsedetection/window_edges.h"

namespace kestrune {

namespace {

constexpr int kBlobConnectivity = 8;

/// Whole pixels, cut off towards zero. Infinity, for "no bound", becomes a number that no diameter reaches.
int wholePixels(float diameter) {
    constexpr float kLargest = 1e9f;
    return static_cast<int>(std::clamp(diameter, -kLargest, kLargest));
}

Drop nothingFound(std::size_t longest) {
    Drop drop;
    drop.cause = DropCause::kNoRim;
    drop.measured = static_cast<double>(longest);
    return drop;
}

}  // namespace

RimSettings RimSettings::of(const CicrleConfigs& c) {
    requireAperture(c.aperture, kLeastThresholdBlock);
    requireBlurSigma(c.sigma);
    if (std::isnan(c.minDiameter)) refuseSetting("minDiameter", "is not a number");
    if (std::isnan(c.maxDiameter)) refuseSetting("maxDiameter", "is not a number");
    return {static_cast<float>(c.sigma),
            c.aperture,
            c.thresholdC,
            c.scale,
            c.edgePercentile,
            c.nmsFactor,
            c.minAxisRatio,
            wholePixels(c.minDiameter),
            wholePixels(c.maxDiameter)};
}

// NOLINTNEXTLINE(readability-function-size): a list that others compile against
void detectEllipseCandidates(const cv::Mat& image, const cv::Mat& fullImage, cv::Mat& blur16U, cv::Mat& img_grad,
                             cv::Mat& img_dx, cv::Mat& img_dy, cv::Mat& binary, cv::Mat& edge_mask, cv::Mat& labels,
                             std::vector<std::vector<cv::Point>>& candidates, float sigma, int aperture, int thresholdC,
                             int scale, float edgePercentile, float nmsFactor, float minAxisRatio, int minDiameter,
                             int maxDiameter) {
    requireGreyImage(image);
    requireGreyImage(fullImage);
    requireAperture(aperture, kLeastThresholdBlock);
    requireBlurSigma(sigma);
    requireScale(scale, fullImage.size());
    std::vector<std::uint16_t> smoothing;
    detectEllipseCandidates(
        {image, fullImage, blur16U, img_grad, img_dx, img_dy, binary, edge_mask, labels, smoothing},
        {sigma, aperture, thresholdC, scale, edgePercentile, nmsFactor, minAxisRatio, minDiameter, maxDiameter},
        candidates, nullptr);
}

void detectEllipseCandidates(const CandidateImages& images, const RimSettings& settings,
                             std::vector<std::vector<cv::Point>>& candidates, Drops* drops) {
    const cv::Mat& fullImage = images.fullImage;
    const int margin = windowMargin(settings.sigma);
    const SizeGate gate(settings);
    images.blur16U.create(fullImage.size(), CV_16UC1);
    images.edgeMask.create(fullImage.size(), CV_8UC1);
    for (cv::Mat* gradient : {&images.grad, &images.dx, &images.dy}) gradient->create(fullImage.size(), CV_32FC1);

    cv::adaptiveThreshold(images.image, images.binary, 255.0, cv::ADAPTIVE_THRESH_GAUSSIAN_C, cv::THRESH_BINARY,
                          settings.aperture, usableThresholdC(settings.thresholdC));
    cv::Mat stats, centroids;
    const int count =
        cv::connectedComponentsWithStats(images.binary, images.labels, stats, centroids, kBlobConnectivity, CV_32S);

    WindowScratch scratch(images.smoothing);
    for (int label = 1; label < count; ++label) {  // 0 is the background
        const int* const stat = stats.ptr<int>(label);
        const cv::Rect blob(stat[cv::CC_STAT_LEFT], stat[cv::CC_STAT_TOP], stat[cv::CC_STAT_WIDTH],
                            stat[cv::CC_STAT_HEIGHT]);
        const cv::Rect blobBox = windowOf(blob, settings.scale, 0, fullImage.size());
        const Drop drop = gate.judgeBlob(blob, stat[cv::CC_STAT_AREA]);
        if (drop) {
            note(drops, Met::kBlob, drop, blobBox);
            continue;
        }
        const cv::Rect rect = windowOf(blob, settings.scale, margin, fullImage.size());
        EdgeWindow window = {images.blur16U(rect), images.grad(rect), images.dx(rect), images.dy(rect),
                             images.edgeMask(rect)};
        const cv::Rect box =
            thinEdges(fullImage, rect, window, settings.sigma, settings.edgePercentile, settings.nmsFactor, scratch);
        const std::size_t before = candidates.size();
        std::size_t longest = 0;
        if (!box.empty()) {
            cv::findContours(window.mask(box), scratch.contours, scratch.hierarchy, cv::RETR_TREE,
                             cv::CHAIN_APPROX_NONE, cv::Point(0, 0));
            longest =
                appendSurvivors(scratch.contours, scratch.hierarchy, gate, rect.tl() + box.tl(), candidates, drops);
        }
        if (candidates.size() == before) note(drops, Met::kBlob, nothingFound(longest), blobBox);
    }
}

}  // namespace kestrune
