// SPDX-License-Identifier: Apache-2.0
#include "MarkerExtractor/extraction/radial_contours.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <opencv2/imgproc.hpp>
#include <optional>

#include "checks/settings_check.h"

namespace kestrune {

namespace {

constexpr int kConnectivity = 8;
constexpr int kLeastBoxSide = 4;          ///< px: below it there is no ring to measure
constexpr double kLargestBoxRatio = 3.0;  ///< longer over shorter side; a marker seen at 70 degrees has 2.9
constexpr float kRingFactor = 1.5f;       ///< outer over inner radius of the ring around a blob
constexpr int kProbesPerSide = 2;
constexpr double kLeastProbeRatio = 0.8;  ///< share of probe directions that must show the contrast

/// A blob in pixels of the reduced image.
struct Blob {
    int left, top, width, height, area;
    cv::Point2f centre;
};

/// Where the ray search starts, in pixels of the full image.
struct BlobAtFullSize {
    cv::Point2f centre;
    double diagonal;
    int shortSide;
};

/// Px that a blob's surroundings need at full size.
int marginOf(const RadialSettings& settings) {
    return static_cast<int>(std::ceil(kWindowSigmas * settings.sigma)) + kWindowMargin;
}

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

/// Cheap gates first: size, elongation, brightness against the ring around it, and the same along single directions.
Drop judgeBlob(const cv::Mat& image, const Blob& blob, const std::vector<cv::Point2f>& probeDirections,
               const RadialSettings& settings) {
    if (blob.area < settings.minArea) return below(DropCause::kArea, blob.area, settings.minArea);
    if (blob.width < kLeastBoxSide || blob.height < kLeastBoxSide) {
        return below(DropCause::kSide, std::min(blob.width, blob.height), kLeastBoxSide);
    }
    const auto longer = static_cast<float>(std::max(blob.width, blob.height));
    const auto shorter = static_cast<float>(std::min(blob.width, blob.height));
    if (longer / shorter > kLargestBoxRatio) {
        return above<double>(DropCause::kElongation, longer / shorter, kLargestBoxRatio);
    }

    const float r1 = static_cast<float>(blob.width + blob.height) * 0.25f;
    const float r2 = r1 * kRingFactor;
    const auto [meanIn, countIn] = meanInDisc(image, blob.centre, r1);
    const auto [meanOut, countOut] = meanInDisc(image, blob.centre, r2);
    const float ringMean = (static_cast<float>(countOut) * meanOut - static_cast<float>(countIn) * meanIn) /
                           static_cast<float>(countOut - countIn);
    if (static_cast<float>(settings.contrast) > meanIn - ringMean) {
        return below<double>(DropCause::kRingContrast, meanIn - ringMean, settings.contrast);
    }
    const float bearing =
        probeRadialContrast(image, blob.centre, r1, r2, settings.contrast, probeDirections, kProbesPerSide);
    if (bearing < kLeastProbeRatio) return below<double>(DropCause::kProbeContrast, bearing, kLeastProbeRatio);
    return {};
}

double diagonalOf(int width, int height) {
    const std::int64_t w = width, h = height;
    return std::sqrt(static_cast<double>(w * w + h * h));
}

BlobAtFullSize multiplyUp(const Blob& blob, int scale) {
    const auto factor = static_cast<float>(scale);
    return {cv::Point2f(factor * blob.centre.x, factor * blob.centre.y), scale * diagonalOf(blob.width, blob.height),
            std::min(blob.width, blob.height) * scale};
}

/// The largest bright component near the blob at full size; none, and why, where its surroundings leave the image or
/// hold nothing but background.
std::optional<BlobAtFullSize> detectAgain(const cv::Mat& fullImage, cv::Mat& fullBinary, const Blob& blob,
                                          const RadialSettings& settings, Drop& drop) {
    const int scale = settings.scale, margin = marginOf(settings);
    const cv::Rect rect(blob.left * scale - margin, blob.top * scale - margin, blob.width * scale + 2 * margin,
                        blob.height * scale + 2 * margin);
    if (rect.x < 0 || rect.y < 0 || rect.x + rect.width > fullImage.cols || rect.y + rect.height > fullImage.rows) {
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
    return BlobAtFullSize{
        cv::Point2f(static_cast<float>(rect.x + centroid[0]), static_cast<float>(rect.y + centroid[1])),
        diagonalOf(again.width, again.height), std::min(again.width, again.height)};
}

/// The points of a blob's rim, or why it has none.
Drop measureBlob(const RadialImages& images, const Blob& blob, const RadialSettings& settings,
                 const RadialDirections& directions, std::vector<cv::Point2f>& points) {
    Drop drop = judgeBlob(images.image, blob, directions.probes, settings);
    if (drop) return drop;
    const std::optional<BlobAtFullSize> full =
        settings.scale == 1 || !settings.refineAtFullSize
            ? multiplyUp(blob, settings.scale)
            : detectAgain(images.fullImage, images.fullBinary, blob, settings, drop);
    if (!full) return drop;
    const float rIn = static_cast<float>(full->shortSide) * 0.25f * 0.75f;
    const auto rOut = static_cast<float>(full->diagonal * 0.5 * kOuterReach);
    const float least = settings.minRayRatio;
    const RaySearch search = searchRadialEdges(images.blurredFull, full->centre, rIn, rOut, points, directions.rays,
                                               settings.contrast / 2, least);
    const float share = static_cast<float>(points.size()) / static_cast<float>(directions.rays.size());
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

std::pair<float, int> meanInDisc(const cv::Mat& image, cv::Point2f centre, float radius) {
    const int left = std::max(0, static_cast<int>(centre.x - radius));
    const int right = std::min(static_cast<int>(centre.x + radius), image.cols - 1);
    const int top = std::max(0, static_cast<int>(centre.y - radius));
    const int bottom = std::min(static_cast<int>(centre.y + radius), image.rows - 1);
    const float limit = radius * radius;
    std::int64_t sum = 0;  // exact, whatever the size of the disc
    int count = 0;
    for (int j = top; j <= bottom; ++j) {
        const uchar* const row = image.ptr<uchar>(j);
        const float dy = static_cast<float>(j) - centre.y;
        int rowSum = 0, rowCount = 0;  // a row at a time and without a branch, which the compiler makes vector code of
        for (int i = left; i <= right; ++i) {
            const float dx = static_cast<float>(i) - centre.x;
            const int inside = dx * dx + dy * dy <= limit ? 1 : 0;
            rowSum += inside * row[i];
            rowCount += inside;
        }
        sum += rowSum;
        count += rowCount;
    }
    if (count == 0) return {0.0f, 0};
    return {static_cast<float>(sum) / static_cast<float>(count), count};
}

float probeRadialContrast(const cv::Mat& image, cv::Point2f centre, float r1, float r2, int contrast,
                          const std::vector<cv::Point2f>& directions, int n) {
    int bearing = 0;
    for (const cv::Point2f& direction : directions) {
        const auto valueAt = [&](float t) {
            return sampleBilinear(image, centre.x + t * direction.x, centre.y + t * direction.y);
        };
        float inner = 0;
        float outer = 255;
        for (int k = 1; k <= n; ++k) {
            const GreySample sample = valueAt(static_cast<float>(k) * r1 / static_cast<float>(n + 1));
            if (sample.valid) inner = std::max(inner, sample.value);
        }
        for (int k = 1; k <= n; ++k) {
            const GreySample sample = valueAt(r1 + static_cast<float>(k) * (r2 - r1) / static_cast<float>(n + 1));
            if (sample.valid) outer = std::min(outer, sample.value);
        }
        if (inner - outer > static_cast<float>(contrast)) ++bearing;
    }
    return static_cast<float>(bearing) / static_cast<float>(directions.size());
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
