// SPDX-License-Identifier: Apache-2.0
#include "MarkerExtractor/extraction/radial_contours.h"

#include <algorithm>
#include <opencv2/imgproc.hpp>
#include <optional>

#include "MarkerExtractor/extraction/radial_gates.h"
#include "checks/settings_check.h"

namespace kestrune {

namespace {

constexpr int kConnectivity = 8;

void thresholdBright(const cv::Mat& image, cv::Mat& binary, const RadialSettings& settings) {
    cv::adaptiveThreshold(image, binary, 255.0, cv::ADAPTIVE_THRESH_GAUSSIAN_C, cv::THRESH_BINARY, settings.aperture,
                          usableThresholdC(settings.thresholdC));
}

Blob readBlob(const cv::Mat& stats, const cv::Mat& centroids, int label) {
    const int* const row = stats.ptr<int>(label);
    const double* const centroid = centroids.ptr<double>(label);
    return {row[cv::CC_STAT_LEFT],  row[cv::CC_STAT_TOP],
            row[cv::CC_STAT_WIDTH], row[cv::CC_STAT_HEIGHT],
            row[cv::CC_STAT_AREA],  cv::Point2f(static_cast<float>(centroid[0]), static_cast<float>(centroid[1]))};
}

/// The largest bright component near the blob at full size; none, and why, where its surroundings leave the image or
/// hold nothing but background.
std::optional<BlobAtFullSize> detectAgain(const cv::Mat& fullImage, cv::Mat& fullBinary, const Blob& blob,
                                          const RadialSettings& settings, Drop& drop) {
    const cv::Rect rect = surroundingsAtFullSize(blob, settings);
    if (!isWithin(rect, fullImage.size())) {
        drop = above(DropCause::kWindow,
                     std::max({-rect.x, -rect.y, rect.br().x - fullImage.cols, rect.br().y - fullImage.rows}), 0);
        return std::nullopt;
    }
    cv::Mat window = fullBinary(rect);
    thresholdBright(fullImage(rect), window, settings);
    cv::Mat labels, stats, centroids;
    const int count = cv::connectedComponentsWithStats(window, labels, stats, centroids, kConnectivity, CV_32S);
    if (count < 2) {
        drop.cause = DropCause::kNotFoundAgain;
        return std::nullopt;
    }

    cv::Point largest;
    cv::minMaxLoc(stats.col(stats.cols - 1).rowRange(1, count), nullptr, nullptr, nullptr, &largest);
    const Blob again = readBlob(stats, centroids, largest.y + 1);
    const double* const centroid = centroids.ptr<double>(largest.y + 1);
    return BlobAtFullSize(rect.tl(), {centroid[0], centroid[1]}, cv::Size(again.width, again.height));
}

/// The points of a blob's rim, or why it has none.
Drop measureBlob(const RadialImages& images, const Blob& blob, const RadialSettings& settings,
                 const RadialDirections& directions, std::vector<cv::Point2f>& points) {
    Drop drop = judgeBlob(images.image, blob, directions.probes, settings);
    if (drop) return drop;
    const std::optional<BlobAtFullSize> full =
        settings.scale == 1 || !settings.refineAtFullSize
            ? BlobAtFullSize(blob, settings.scale)
            : detectAgain(images.fullImage, images.fullBinary, blob, settings, drop);
    if (!full) return drop;
    const float least = settings.minRayRatio;
    const RaySearch search = searchRadialEdges(images.blurredFull, full->centre, full->rIn, full->rOut, points,
                                               directions.rays, settings.contrast / 2, least);
    const float share = shareOf(points, directions);
    if (!(least > share)) return {};
    if (search.beyond > 0) return above(DropCause::kBorder, search.beyond, 0.0);
    return least > search.bearing ? below(DropCause::kRays, search.bearing, least)
                                  : below(DropCause::kUnevenRays, share, least);
}

}  // namespace

RadialSettings RadialSettings::of(const CicrleConfigs& c) {
    const RadialSettings settings = {c.sigma, c.aperture,         c.minContourSize, c.thresholdC,
                                     c.scale, c.refineAtFullSize, c.minRayRatio,    c.contrast};
    settings.check();
    return settings;
}

void RadialSettings::check() const {
    requireAperture(aperture, kLeastThresholdBlock);
    requireBlurSigma(sigma);
}

// NOLINTNEXTLINE(readability-function-size): a list that others compile against
void detectRadialContours(const cv::Mat& image, const cv::Mat& fullImage, cv::Mat& blurredFull, cv::Mat& binary,
                          cv::Mat& fullBinary, cv::Mat& labels, double sigma, int aperture,
                          std::vector<SubpixelContour>& contours, const std::vector<cv::Point2f>& rayDirections,
                          const std::vector<cv::Point2f>& probeDirections, int minArea, int thresholdC, int scale,
                          bool refineAtFullSize, float minRayRatio, int contrast) {
    const RadialSettings settings = {sigma, aperture,         minArea,     thresholdC,
                                     scale, refineAtFullSize, minRayRatio, contrast};
    requireGreyImage(image);
    requireGreyImage(fullImage);
    settings.check();
    requireScale(scale, fullImage.size());
    detectRadialContours({image, fullImage, blurredFull, binary, fullBinary, labels}, settings,
                         {rayDirections, probeDirections}, contours, nullptr);
}

void detectRadialContours(const RadialImages& images, const RadialSettings& settings,
                          const RadialDirections& directions, std::vector<SubpixelContour>& contours, Drops* drops) {
    contours.clear();
    images.fullBinary.create(images.fullImage.size(), CV_8UC1);
    cv::GaussianBlur(images.fullImage, images.blurredFull, cv::Size(settings.aperture, settings.aperture),
                     settings.sigma, settings.sigma, cv::BORDER_REFLECT_101);
    thresholdBright(images.image, images.binary, settings);
    cv::Mat stats, centroids;
    const int count =
        cv::connectedComponentsWithStats(images.binary, images.labels, stats, centroids, kConnectivity, CV_32S);

    std::vector<cv::Point2f> points;
    points.reserve(directions.rays.size());
    for (int label = 1; label < count; ++label) {  // 0 is the background
        const Blob blob = readBlob(stats, centroids, label);
        const Drop drop = measureBlob(images, blob, settings, directions, points);
        if (drop) {
            const int scale = settings.scale;
            note(drops, Met::kBlob, drop,
                 cv::Rect(blob.left * scale, blob.top * scale, blob.width * scale, blob.height * scale));
        } else {
            contours.emplace_back().points = points;
        }
    }
}

}  // namespace kestrune
