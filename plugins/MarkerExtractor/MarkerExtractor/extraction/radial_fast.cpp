// SPDX-License-Identifier: Apache-2.0
#include "MarkerExtractor/extraction/radial_fast.h"

#include <algorithm>
#include <opencv2/imgproc.hpp>

#include "parallel/parallel_loop.h"

namespace kestrune {

namespace {

constexpr std::int64_t kMostPerPixel = 200;  ///< ns
constexpr int kStripRows = 64;               ///< of an image that is smoothed as a whole

std::int64_t mostPerBlob(const cv::Mat& image) {
    return kMostPerPixel * image.rows * image.cols;
}

/// The largest bright component near the blob at full size; none where its surroundings leave the image or hold nothing
/// but background.
std::optional<BlobAtFullSize> detectAgain(const cv::Mat& fullImage, const Blob& blob, const RadialSettings& settings,
                                          RadialScratch::Thread& storage) {
    const cv::Rect rect = surroundingsAtFullSize(blob, settings);
    if (!isWithin(rect, fullImage.size())) return std::nullopt;
    findBrightBlobs(fullImage(rect), settings.aperture, settings.thresholdC, storage.again, storage.found);
    if (storage.found.empty()) return std::nullopt;
    const BrightBlob& largest = *std::ranges::max_element(storage.found, {}, &BrightBlob::area);
    return BlobAtFullSize(rect.tl(), largest.centroid, largest.box.size());
}

/// Where the rays of each blob go that the gates let pass.
void judgeBlobs(const cv::Mat& image, const cv::Mat& fullImage, const RadialSettings& settings,
                const RadialDirections& directions, RadialScratch& scratch) {
    scratch.large.clear();
    for (const BrightBlob& found : scratch.found) {
        if (found.area < settings.minArea) continue;  // most of them in an image of noise
        scratch.large.push_back(
            {found.box.x, found.box.y, found.box.width, found.box.height, found.area,
             cv::Point2f(static_cast<float>(found.centroid.x), static_cast<float>(found.centroid.y))});
    }
    scratch.measured.assign(scratch.large.size(), std::nullopt);
    const bool again = settings.scale != 1 && settings.refineAtFullSize;
    forEachInParallel(static_cast<int>(scratch.large.size()), mostPerBlob(fullImage), [&](int item, int thread) {
        const auto k = static_cast<std::size_t>(item);
        const Blob& blob = scratch.large[k];
        if (judgeBlob(image, blob, directions.probes, settings)) return;
        scratch.measured[k] =
            again ? detectAgain(fullImage, blob, settings, scratch.threads[static_cast<std::size_t>(thread)])
                  : BlobAtFullSize(blob, settings.scale);
    });
    std::erase(scratch.measured, std::nullopt);
}

/// What the rays of a blob read; nothing where they would leave the image.
cv::Rect windowOf(const BlobAtFullSize& blob, cv::Size image) {
    if (!areRaysOnImage(image, blob.centre, blob.rOut)) return {};
    const int reach = reachOfRays(blob.rOut);
    const cv::Point centre(static_cast<int>(blob.centre.x), static_cast<int>(blob.centre.y));
    return cv::Rect(centre - cv::Point(reach, reach), centre + cv::Point(reach + 1, reach + 1)) &
           cv::Rect(cv::Point(), image);
}

/// Smooths the whole image where windows would hold more pixels, or where OpenCV has to do it.
/// @return whether it did.
bool smoothWhole(const cv::Mat& image, RadialScratch& scratch) {
    std::int64_t pixels = 0;
    for (const std::optional<BlobAtFullSize>& blob : scratch.measured) {
        const cv::Rect window = windowOf(*blob, image.size());
        pixels += std::int64_t{window.width} * window.height;
    }
    const SmoothingPlan& plan = *scratch.smoothing;
    if (plan.isExact && pixels <= std::int64_t{image.rows} * image.cols) return false;
    scratch.whole.create(image.rows, smoothedStride(image.cols), CV_8UC1);
    if (!plan.isExact) {
        cv::GaussianBlur(image, scratch.whole.colRange(0, image.cols), cv::Size(plan.aperture, plan.aperture),
                         plan.sigma, plan.sigma, cv::BORDER_REFLECT_101);
        return true;
    }
    const int strips = (image.rows + kStripRows - 1) / kStripRows;
    forEachInParallel(strips, kMostPerPixel * kStripRows * image.cols, [&](int strip, int thread) {
        const cv::Rect rows(0, strip * kStripRows, image.cols, std::min(kStripRows, image.rows - strip * kStripRows));
        smoothWindow(image, rows, plan, scratch.threads[static_cast<std::size_t>(thread)].smoothing,
                     scratch.whole.ptr(rows.y), static_cast<std::ptrdiff_t>(scratch.whole.step));
    });
    return true;
}

/// Smooths what the rays of a blob read.
GreyView smoothAround(const cv::Mat& image, const BlobAtFullSize& blob, const SmoothingPlan& plan,
                      RadialScratch::Thread& storage) {
    const cv::Rect window = windowOf(blob, image.size());
    const int stride = smoothedStride(window.width);
    storage.window.resize(static_cast<std::size_t>(stride) * static_cast<std::size_t>(window.height));
    if (!window.empty()) smoothWindow(image, window, plan, storage.smoothing, storage.window.data(), stride);
    return {storage.window.data(), stride, window.tl(), image.size()};
}

}  // namespace

void detectRadialContoursFast(const cv::Mat& image, const cv::Mat& fullImage, const RadialSettings& settings,
                              const RadialDirections& directions, RadialScratch& scratch,
                              std::vector<SubpixelContour>& contours) {
    if (!scratch.smoothing || scratch.smoothing->aperture != settings.aperture ||
        scratch.smoothing->sigma != settings.sigma) {
        scratch.smoothing.emplace(settings.aperture, settings.sigma);
    }
    scratch.threads.resize(std::max(scratch.threads.size(), static_cast<std::size_t>(largestTeam())));
    findBrightBlobs(image, settings.aperture, settings.thresholdC, scratch.blobs, scratch.found);
    judgeBlobs(image, fullImage, settings, directions, scratch);

    const bool isWhole = smoothWhole(fullImage, scratch);
    const std::size_t count = scratch.measured.size();
    scratch.contours.assign(count, std::nullopt);
    forEachInParallel(static_cast<int>(count), mostPerBlob(fullImage), [&](int item, int thread) {
        const auto k = static_cast<std::size_t>(item);
        const BlobAtFullSize& blob = *scratch.measured[k];
        RadialScratch::Thread& storage = scratch.threads[static_cast<std::size_t>(thread)];
        const GreyView smooth = isWhole ? GreyView(scratch.whole.ptr(), static_cast<std::ptrdiff_t>(scratch.whole.step),
                                                   cv::Point(), fullImage.size())
                                        : smoothAround(fullImage, blob, *scratch.smoothing, storage);
        SubpixelContour contour;
        searchRadialEdges(smooth, blob.centre, {blob.rIn, blob.rOut}, contour.points, directions.rays,
                          settings.contrast / 2, settings.minRayRatio, storage.rays);
        if (!(settings.minRayRatio > shareOf(contour.points, directions))) scratch.contours[k] = std::move(contour);
    });
    contours.clear();
    for (std::optional<SubpixelContour>& contour : scratch.contours) {
        if (contour) contours.push_back(std::move(*contour));
    }
}

}  // namespace kestrune
