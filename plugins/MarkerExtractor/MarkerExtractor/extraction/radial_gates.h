// SPDX-License-Identifier: Apache-2.0
//
// What the two roads of the radial front end share: which blobs are worth rays, and where those go.
#pragma once

#include <opencv2/core.hpp>
#include <vector>

#include "MarkerExtractor/extraction/radial_contours.h"
#include "checks/drops.h"

namespace kestrune {

/// A blob in pixels of the reduced image.
struct Blob {
    int left, top, width, height, area;
    cv::Point2f centre;
};

/// Where rays are cast, in pixels of the full image.
struct BlobAtFullSize {
    BlobAtFullSize(const Blob& blob, int scale);
    /// A blob that was detected again.
    ///
    /// @param window    that it was detected in.
    /// @param centroid  px of the window.
    BlobAtFullSize(cv::Point window, const cv::Point2d& centroid, cv::Size box);

    cv::Point2f centre;
    float rIn, rOut;
};

/// Where a blob is detected again.
cv::Rect surroundingsAtFullSize(const Blob& blob, const RadialSettings& settings);
bool isWithin(const cv::Rect& rect, cv::Size image);

/// Cheap gates first: size, elongation, brightness against the ring around it, and the same along single directions.
Drop judgeBlob(const cv::Mat& image, const Blob& blob, const std::vector<cv::Point2f>& probeDirections,
               const RadialSettings& settings);

/// Points over rays; a blob is a candidate unless `minRayRatio` exceeds it.
inline float shareOf(const std::vector<cv::Point2f>& points, const RadialDirections& directions) {
    return static_cast<float>(points.size()) / static_cast<float>(directions.rays.size());
}

}  // namespace kestrune
