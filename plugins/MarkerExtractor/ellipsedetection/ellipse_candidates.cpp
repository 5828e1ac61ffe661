// SPDX-License-Identifier: Apache-2.0
#include "ellipsedetection/ellipse_candidates.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <numbers>
#include <opencv2/imgproc.hpp>

#include "checks/settings_check.h"
#include "ellipsedetection/contour_tree.h"
#include "ellipsedetection/window_edges.h"

namespace kestrune {

namespace {

constexpr int kBlobConnectivity = 8;
constexpr int kExtraMargin = 5;  ///< px beyond the reach of the smoothing, so that an edge and its slopes are inside

// Pixels over the box's perimeter, of a blob and of a contour: less is a fragment.
constexpr double kLeastPerimeterShare = 0.6;
// Pixels over the area of the ellipse in the box: less is a thin stroke across it.
constexpr double kLeastFill = 0.15;

/// Whole pixels, cut off towards zero. Infinity, for "no bound", becomes a number that no diameter reaches.
int wholePixels(float diameter) {
    constexpr float kLargest = 1e9f;
    return static_cast<int>(std::clamp(diameter, -kLargest, kLargest));
}

/// The bounds that blobs and contours share.
struct SizeGate {
    std::int64_t minPixels, maxPixels;
    int minDiameter, maxDiameter;
    float minAxisRatio;

    Drop judge(int width, int height, std::int64_t pixels) const {
        if (pixels < minPixels) return below(DropCause::kPixels, pixels, minPixels);
        if (pixels > maxPixels) return above(DropCause::kPixels, pixels, maxPixels);
        const int longer = std::max(width, height);
        const int shorter = std::min(width, height);
        if (longer > maxDiameter) return above(DropCause::kLongerSide, longer, maxDiameter);
        if (shorter < minDiameter) return below(DropCause::kShorterSide, shorter, minDiameter);
        const float ratio = static_cast<float>(shorter) / static_cast<float>(longer);
        if (minAxisRatio > ratio) return below(DropCause::kBoxRatio, ratio, minAxisRatio);
        const float share = static_cast<float>(pixels) / static_cast<float>(2 * (width + height));
        if (kLeastPerimeterShare > share) {
            return below<double>(DropCause::kPerimeterShare, share, kLeastPerimeterShare);
        }
        return {};
    }
};

Drop judgeBlob(int width, int height, int area, const SizeGate& gate) {
    const Drop drop = gate.judge(width, height, area);
    if (drop) return drop;
    const auto fill = static_cast<float>(area / (width * std::numbers::pi * height * 0.25));
    if (kLeastFill > fill) return below<double>(DropCause::kFill, fill, kLeastFill);
    return {};
}

/// Where the blob with these statistics is to be looked at in the full image.
cv::Rect windowOf(const int* stats, int scale, int margin, const cv::Size& fullSize) {
    return cv::Rect(stats[cv::CC_STAT_LEFT] * scale - margin, stats[cv::CC_STAT_TOP] * scale - margin,
                    stats[cv::CC_STAT_WIDTH] * scale + 2 * margin, stats[cv::CC_STAT_HEIGHT] * scale + 2 * margin) &
           cv::Rect({}, fullSize);
}

Drop dropOf(const Nesting& nesting, std::size_t pixels) {
    Drop drop = below(DropCause::kNesting, nesting.share, nesting.least);
    drop.largest = nesting.largest;
    if (!nesting.isOpen) return drop;
    drop = {};
    drop.cause = DropCause::kOpenLine;
    drop.measured = static_cast<double>(pixels);
    return drop;
}

Drop nothingFound(std::size_t longest) {
    Drop drop;
    drop.cause = DropCause::kNoRim;
    drop.measured = static_cast<double>(longest);
    return drop;
}

/// @return pixels of the longest line.
std::size_t appendSurvivors(std::vector<std::vector<cv::Point>>& contours, const std::vector<cv::Vec4i>& hierarchy,
                            const SizeGate& gate, cv::Point origin, std::vector<std::vector<cv::Point>>& candidates,
                            Drops* drops) {
    const std::vector<double> areas = signedAreas(contours, hierarchy);
    std::size_t longest = 0;
    for (std::size_t k = 0; k < contours.size(); ++k) {
        std::vector<cv::Point>& contour = contours[k];
        longest = std::max(longest, contour.size());
        const Nesting nesting = nestingOf(static_cast<int>(k), areas, hierarchy);
        if (!nesting.isRim() && drops == nullptr) continue;
        const cv::Rect box = cv::boundingRect(contour);
        const Drop drop = nesting.isRim() ? gate.judge(box.width, box.height, static_cast<std::int64_t>(contour.size()))
                                          : dropOf(nesting, contour.size());
        if (drop) {
            note(drops, Met::kContour, drop, box + origin);
            continue;
        }
        for (cv::Point& point : contour) point += origin;
        candidates.push_back(std::move(contour));
    }
    return longest;
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
    const int margin = static_cast<int>(std::ceil(3.0 * settings.sigma)) + kExtraMargin;
    const SizeGate gate = {kPixelsPerDiameter * settings.minDiameter, kPixelsPerDiameter * settings.maxDiameter,
                           settings.minDiameter, settings.maxDiameter, settings.minAxisRatio};
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
        const int* const blob = stats.ptr<int>(label);
        const cv::Rect blobBox = windowOf(blob, settings.scale, 0, fullImage.size());
        const Drop drop = judgeBlob(blob[cv::CC_STAT_WIDTH], blob[cv::CC_STAT_HEIGHT], blob[cv::CC_STAT_AREA], gate);
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
