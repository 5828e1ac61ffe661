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

/// What all blobs of a call share.
struct RadialSettings {
    int margin, aperture, minArea, scale, contrast;
    double thresholdC;
};

void thresholdBright(const cv::Mat& image, cv::Mat& binary, const RadialSettings& settings) {
    cv::adaptiveThreshold(image, binary, 255.0, cv::ADAPTIVE_THRESH_GAUSSIAN_C, cv::THRESH_BINARY, settings.aperture,
                          settings.thresholdC);
}

Blob readBlob(const cv::Mat& stats, const cv::Mat& centroids, int label) {
    const int* const row = stats.ptr<int>(label);
    const double* const centroid = centroids.ptr<double>(label);
    return {row[cv::CC_STAT_LEFT],  row[cv::CC_STAT_TOP],
            row[cv::CC_STAT_WIDTH], row[cv::CC_STAT_HEIGHT],
            row[cv::CC_STAT_AREA],  cv::Point2f(static_cast<float>(centroid[0]), static_cast<float>(centroid[1]))};
}

/// Cheap gates first: size, elongation, brightness against the ring around it, and the same along single directions.
bool looksLikeMarker(const cv::Mat& image, const Blob& blob, const std::vector<cv::Point2f>& probeDirections,
                     const RadialSettings& settings) {
    if (blob.area < settings.minArea) return false;
    if (blob.width < kLeastBoxSide || blob.height < kLeastBoxSide) return false;
    const auto longer = static_cast<float>(std::max(blob.width, blob.height));
    const auto shorter = static_cast<float>(std::min(blob.width, blob.height));
    if (longer / shorter > kLargestBoxRatio) return false;

    const float r1 = static_cast<float>(blob.width + blob.height) * 0.25f;
    const float r2 = r1 * kRingFactor;
    const auto [meanIn, countIn] = meanInDisc(image, blob.centre, r1);
    const auto [meanOut, countOut] = meanInDisc(image, blob.centre, r2);
    const float ringMean = (static_cast<float>(countOut) * meanOut - static_cast<float>(countIn) * meanIn) /
                           static_cast<float>(countOut - countIn);
    if (static_cast<float>(settings.contrast) > meanIn - ringMean) return false;
    return !(probeRadialContrast(image, blob.centre, r1, r2, settings.contrast, probeDirections, kProbesPerSide) <
             kLeastProbeRatio);
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

/// The largest bright component near the blob at full size; none where its surroundings leave the image or hold nothing
/// but background.
std::optional<BlobAtFullSize> detectAgain(const cv::Mat& fullImage, cv::Mat& fullBinary, const Blob& blob,
                                          const RadialSettings& settings) {
    const cv::Rect rect(blob.left * settings.scale - settings.margin, blob.top * settings.scale - settings.margin,
                        blob.width * settings.scale + 2 * settings.margin,
                        blob.height * settings.scale + 2 * settings.margin);
    if (rect.x < 0 || rect.y < 0 || rect.x + rect.width > fullImage.cols || rect.y + rect.height > fullImage.rows) {
        return std::nullopt;
    }
    cv::Mat window = fullBinary(rect);
    thresholdBright(fullImage(rect), window, settings);
    cv::Mat labels, stats, centroids;
    const int count = cv::connectedComponentsWithStats(window, labels, stats, centroids, kConnectivity, CV_32S);
    if (count < 2) return std::nullopt;

    cv::Point largest;
    cv::minMaxLoc(stats.col(stats.cols - 1).rowRange(1, count), nullptr, nullptr, nullptr, &largest);
    const Blob again = readBlob(stats, centroids, largest.y + 1);
    const double* const centroid = centroids.ptr<double>(largest.y + 1);
    return BlobAtFullSize{
        cv::Point2f(static_cast<float>(rect.x + centroid[0]), static_cast<float>(rect.y + centroid[1])),
        diagonalOf(again.width, again.height), std::min(again.width, again.height)};
}

}  // namespace

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

void detectRadialContours(const cv::Mat& image, const cv::Mat& fullImage, cv::Mat& blurredFull, cv::Mat& binary,
                          cv::Mat& fullBinary, cv::Mat& labels, double sigma, int aperture,
                          std::vector<SubpixelContour>& contours, const std::vector<cv::Point2f>& rayDirections,
                          const std::vector<cv::Point2f>& probeDirections, int minArea, int thresholdC, int scale,
                          bool refineAtFullSize, float minRayRatio, int contrast) {
    requireGreyImage(image);
    requireGreyImage(fullImage);
    requireAperture(aperture, kLeastThresholdBlock);
    requireBlurSigma(sigma);
    requireScale(scale, fullImage.size());
    const RadialSettings settings = {
        static_cast<int>(std::ceil(3.0 * sigma)) + 3, aperture, minArea, scale, contrast, usableThresholdC(thresholdC)};
    contours.clear();
    fullBinary.create(fullImage.size(), CV_8UC1);
    cv::GaussianBlur(fullImage, blurredFull, cv::Size(aperture, aperture), sigma, sigma, cv::BORDER_REFLECT_101);
    thresholdBright(image, binary, settings);
    cv::Mat stats, centroids;
    const int count = cv::connectedComponentsWithStats(binary, labels, stats, centroids, kConnectivity, CV_32S);

    std::vector<cv::Point2f> points;
    points.reserve(rayDirections.size());
    for (int label = 1; label < count; ++label) {  // 0 is the background
        const Blob blob = readBlob(stats, centroids, label);
        if (!looksLikeMarker(image, blob, probeDirections, settings)) continue;
        const std::optional<BlobAtFullSize> full = scale == 1 || !refineAtFullSize
                                                       ? multiplyUp(blob, scale)
                                                       : detectAgain(fullImage, fullBinary, blob, settings);
        if (!full) continue;
        const float rIn = static_cast<float>(full->shortSide) * 0.25f * 0.75f;
        const auto rOut = static_cast<float>(full->diagonal * 0.5 * 1.25);
        searchRadialEdges(blurredFull, full->centre, rIn, rOut, points, rayDirections, contrast / 2, minRayRatio);
        if (minRayRatio > static_cast<float>(points.size()) / static_cast<float>(rayDirections.size())) continue;
        contours.emplace_back().points = points;
    }
}

}  // namespace kestrune
