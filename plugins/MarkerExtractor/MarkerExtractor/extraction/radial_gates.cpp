// SPDX-License-Identifier: Apache-2.0
#include "MarkerExtractor/extraction/radial_gates.h"

#include <algorithm>
#include <cmath>
#include <cstdint>

namespace kestrune {

namespace {

constexpr int kLeastBoxSide = 4;          ///< px: below it there is no ring to measure
constexpr double kLargestBoxRatio = 3.0;  ///< longer over shorter side; a marker seen at 70 degrees has 2.9
constexpr float kRingFactor = 1.5f;       ///< outer over inner radius of the ring around a blob
constexpr int kProbesPerSide = 2;
constexpr double kLeastProbeRatio = 0.8;  ///< share of probe directions that must show the contrast

double diagonalOf(int width, int height) {
    const std::int64_t w = width, h = height;
    return std::sqrt(static_cast<double>(w * w + h * h));
}

float outerRadius(double diagonal) {
    return static_cast<float>(diagonal * 0.5 * kOuterReach);
}

float innerRadius(int shortSide) {
    return static_cast<float>(shortSide) * 0.25f * 0.75f;
}

}  // namespace

BlobAtFullSize::BlobAtFullSize(const Blob& blob, int scale)
    : centre(static_cast<float>(scale) * blob.centre.x, static_cast<float>(scale) * blob.centre.y),
      rIn(innerRadius(std::min(blob.width, blob.height) * scale)),
      rOut(outerRadius(scale * diagonalOf(blob.width, blob.height))) {}

BlobAtFullSize::BlobAtFullSize(cv::Point window, const cv::Point2d& centroid, cv::Size box)
    : centre(static_cast<float>(window.x + centroid.x), static_cast<float>(window.y + centroid.y)),
      rIn(innerRadius(std::min(box.width, box.height))),
      rOut(outerRadius(diagonalOf(box.width, box.height))) {}

cv::Rect surroundingsAtFullSize(const Blob& blob, const RadialSettings& settings) {
    const int scale = settings.scale;
    const int margin = static_cast<int>(std::ceil(kWindowSigmas * settings.sigma)) + kWindowMargin;
    return {blob.left * scale - margin, blob.top * scale - margin, blob.width * scale + 2 * margin,
            blob.height * scale + 2 * margin};
}

bool isWithin(const cv::Rect& rect, cv::Size image) {
    return rect.x >= 0 && rect.y >= 0 && rect.x + rect.width <= image.width && rect.y + rect.height <= image.height;
}

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

}  // namespace kestrune
