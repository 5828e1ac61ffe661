// SPDX-License-Identifier: Apache-2.0
#include "blobs/bright_blobs.h"

#include <algorithm>

#include "parallel/parallel_loop.h"

namespace kestrune {

namespace {

constexpr int kStripRows = 64;  ///< even: a strip's bytes stay in the cache, and each one has some 0.1 ms to do
constexpr std::int64_t kMostPerPixel = 100;  ///< ns

}  // namespace

void findBrightBlobs(const cv::Mat& image, int aperture, int thresholdC, BlobScratch& scratch,
                     std::vector<BrightBlob>& blobs) {
    if (!scratch.plan || scratch.plan->aperture != aperture || scratch.thresholdC != thresholdC) {
        scratch.plan.emplace(aperture, thresholdC);
        scratch.thresholdC = thresholdC;
    }
    const int count = (image.rows + kStripRows - 1) / kStripRows;
    scratch.threads.resize(std::max(scratch.threads.size(), static_cast<std::size_t>(largestTeam())));
    scratch.strips.resize(std::max(scratch.strips.size(), static_cast<std::size_t>(count)));
    forEachInParallel(count, kMostPerPixel * kStripRows * image.cols, [&](int strip, int thread) {
        const cv::Range rows(strip * kStripRows, std::min((strip + 1) * kStripRows, image.rows));
        ThresholdScratch& storage = scratch.threads[static_cast<std::size_t>(thread)];
        thresholdRows(image, *scratch.plan, rows, storage);
        RowComponents& components = scratch.strips[static_cast<std::size_t>(strip)];
        components.begin(rows.start);
        for (std::size_t row = 0; row < static_cast<std::size_t>(rows.size()); ++row) {
            const uchar* const bright = storage.bright.data() + row * storage.stride;
            components.addRow(storage.isEmpty[row] != 0 ? nullptr : bright, storage.stride);
        }
        components.finish();
    });
    scratch.seams.join(scratch.strips, static_cast<std::size_t>(count), blobs);
}

}  // namespace kestrune
