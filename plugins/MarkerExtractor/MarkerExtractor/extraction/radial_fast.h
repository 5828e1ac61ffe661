// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <opencv2/core.hpp>
#include <optional>
#include <vector>

#include "MarkerExtractor/extraction/radial_contours.h"
#include "MarkerExtractor/extraction/radial_gates.h"
#include "MarkerExtractor/extraction/radial_rays.h"
#include "MarkerExtractor/extraction/window_smoothing.h"
#include "blobs/bright_blobs.h"

namespace kestrune {

/// Storage of the fast road, kept from call to call.
struct RadialScratch {
    struct Thread {
        BlobScratch again;
        std::vector<BrightBlob> found;
        SmoothingScratch smoothing;
        std::vector<uchar> window;
        RayScratch rays;
    };
    BlobScratch blobs;
    std::vector<BrightBlob> found;
    std::vector<Blob> large;
    std::vector<std::optional<BlobAtFullSize>> measured;
    std::optional<SmoothingPlan> smoothing;  ///< of the last call
    cv::Mat whole;                           ///< smoothed; only for images full of blobs
    std::vector<Thread> threads;
    std::vector<std::optional<SubpixelContour>> contours;
};

/// The contours of `detectRadialContours` in the same bits, without an image of each step: blobs come from runs of
/// pixels, only what rays reach is smoothed, and blobs are shared among threads.
///
/// @param image      `CV_8UC1`, `fullImage` reduced by the scale.
/// @param fullImage  `CV_8UC1`.
/// @param settings   checked.
/// @param contours   result.
void detectRadialContoursFast(const cv::Mat& image, const cv::Mat& fullImage, const RadialSettings& settings,
                              const RadialDirections& directions, RadialScratch& scratch,
                              std::vector<SubpixelContour>& contours);

}  // namespace kestrune
