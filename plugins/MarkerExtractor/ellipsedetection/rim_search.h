// SPDX-License-Identifier: Apache-2.0
//
// Which blobs are worth a window, and which lines of a window may be rims.
#pragma once

#include <cstdint>
#include <opencv2/core.hpp>
#include <vector>

#include "checks/drops.h"
#include "ellipsedetection/ellipse_candidates.h"

namespace kestrune {

/// The bounds that blobs and contours share.
struct SizeGate {
    explicit SizeGate(const RimSettings& settings);

    Drop judge(int width, int height, std::int64_t pixels) const;

    /// @param box   of the blob, px of the reduced image.
    /// @param area  number of its pixels.
    Drop judgeBlob(const cv::Rect& box, int area) const;

    std::int64_t minPixels, maxPixels;
    int minDiameter, maxDiameter;
    float minAxisRatio;
};

/// Between a blob's box and the border of its window, px: what the smoothing reaches and room for an edge.
int windowMargin(float sigma);

/// Where a blob is to be looked at in the full image.
cv::Rect windowOf(const cv::Rect& blob, int scale, int margin, const cv::Size& fullSize);

/// Moves those of a window's contours that may be rims to the candidates.
///
/// @param origin  of the contours in the full image.
/// @param drops   appended to: the others; may be null.
/// @return        pixels of the longest line.
std::size_t appendSurvivors(std::vector<std::vector<cv::Point>>& contours, const std::vector<cv::Vec4i>& hierarchy,
                            const SizeGate& gate, cv::Point origin, std::vector<std::vector<cv::Point>>& candidates,
                            Drops* drops);

}  // namespace kestrune
