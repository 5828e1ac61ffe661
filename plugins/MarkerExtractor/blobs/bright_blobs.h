// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <opencv2/core.hpp>
#include <optional>
#include <vector>

#include "blobs/local_threshold.h"
#include "blobs/run_components.h"

namespace kestrune {

/// Storage of `findBrightBlobs`, kept from call to call.
struct BlobScratch {
    std::optional<ThresholdPlan> plan;  ///< of the last call
    int thresholdC = 0;                 ///< that it was made for
    std::vector<ThresholdScratch> threads;
    std::vector<RowComponents> strips;
    ComponentSeams seams;
};

/// The components that `cv::connectedComponentsWithStats` (8-connected) finds in what `cv::adaptiveThreshold`
/// (Gaussian, binary) leaves of an image, without the background, in the same order and bits. Neither a binary image
/// nor one of labels is written; strips of rows are shared among threads.
///
/// @param image       `CV_8UC1`, not empty; of a window no pixel outside is looked at.
/// @param aperture    side of the threshold's block, px, odd, 3 or more.
/// @param thresholdC  its constant, grey levels, any.
/// @param blobs       result.
void findBrightBlobs(const cv::Mat& image, int aperture, int thresholdC, BlobScratch& scratch,
                     std::vector<BrightBlob>& blobs);

}  // namespace kestrune
