// SPDX-License-Identifier: Apache-2.0
//
// The sub-pixel points of closed edge contours without the images in between: rows are smoothed, differentiated and
// suppressed while they are in the cache, and what follows looks at edges only.
#pragma once

#include <opencv2/core.hpp>
#include <optional>
#include <vector>

#include "canny/contour_tracing.h"
#include "canny/edge_map.h"
#include "canny/edge_rows.h"
#include "canny/row_gaussian.h"
#include "canny/subpixel_contours.h"

namespace kestrune {

/// Goes from call to call, so that a call at the size of the last one allocates nothing that grows with the image.
struct EdgeScratch {
    /// Of one thread.
    struct Strip {
        SmoothedRows rows;
        std::vector<uchar> beyond;  ///< smoothed rows of the neighbours
        RowGaussian::Scratch sums;
        GradientRows gradients;
    };
    std::vector<uchar> smoothed;
    SmoothedRows rows;  ///< of all of it
    EdgeMap map;
    std::vector<EdgePixels> pixels;  ///< of each strip
    std::vector<Strip> strips;       ///< of each thread
    ContourTracer tracer;
};

/// What `detectSubpixelContours` gives for these settings, in the same bits, as far as the points go: `response` and
/// `direction` stay empty.
///
/// @param image  `CV_8UC1`, an image of its own and not a window of a larger one.
/// @return       whether it was done: it is not for kernels with many taps and for other modes than `cv::RETR_TREE`.
///               Nothing was written then.
bool detectContourPoints(const cv::Mat& image, const EdgeSettings& settings, EdgeScratch& scratch,
                         std::vector<SubpixelContour>& contours);

}  // namespace kestrune
