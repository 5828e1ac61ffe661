// SPDX-License-Identifier: Apache-2.0
//
// The front end and the first stage of the edge-based path on its fast road: each blob's window is smoothed, thinned
// and judged by itself, on any thread, without an image of full size.
#pragma once

#include <opencv2/core.hpp>
#include <vector>

#include "MarkerExtractor/extraction/rim_gates.h"
#include "blobs/bright_blobs.h"
#include "ellipsedetection/ellipse_candidates.h"
#include "ellipsedetection/private_window.h"

namespace kestrune {

/// A rim that passed the first stage.
struct PassedRim {
    std::size_t candidate;  ///< its place among the candidates
    PolarEllipse ellipse;
    std::vector<cv::Point> points;     ///< its pixels
    std::vector<cv::Point2f> refined;  ///< the same moved to the ridge of the gradient; of the fast road only
};

/// The windows of a call in the order of their blobs.
class RimWindows final : public WholeImage {
  public:
    /// @param grey   `CV_8UC1`, the whole image; must outlive this.
    /// @param blobs  boxes of the blobs that are worth a window, px of the reduced image.
    RimWindows(const cv::Mat& grey, const std::vector<cv::Rect>& blobs, const RimSettings& settings);

    const cv::Rect& operator[](std::size_t window) const { return places_[window]; }

    /// Calls `meet` with the later windows that have pixels in common with a part of the image, in their order. Blobs
    /// come from the top down, so that few are looked at.
    template <typename Meet>
    void forEachLater(std::size_t window, const cv::Rect& part, const Meet& meet) const {
        for (std::size_t k = window + 1; topFrom_[k] < part.y + part.height; ++k) {
            if (!(places_[k] & part).empty()) meet(places_[k]);
        }
    }

    cv::Mat smoothed(const cv::Rect& part) const override;

  private:
    const cv::Mat& grey_;
    float sigma_;
    std::vector<cv::Rect> places_;
    std::vector<int> topFrom_;  ///< uppermost row of this window and all later ones
};

/// What goes from window to window, of each thread.
struct RimThread {
    PrivateWindow window;
    RimScratch gates;
    std::vector<std::vector<cv::Point>> contours, candidates;
    std::vector<cv::Vec4i> hierarchy;
};

/// Storage of the fast road that goes from call to call.
struct RimStorage {
    std::vector<BrightBlob> blobs;
    std::vector<RimThread> threads;
};

/// The rims that pass the first stage, in the order of their blobs and of the contours in a window.
///
/// Where windows overlap, a candidate is judged by the gradient that the plain road's images hold: at each pixel that
/// of the last window whose inner part covers it. The smoothed image is one and the same in all windows.
///
/// @param grey     `CV_8UC1`, the whole image.
/// @param storage  with the `blobs` of the reduced image.
std::vector<PassedRim> passRims(const cv::Mat& grey, const RimSettings& settings, const RimGates& gates,
                                RimStorage& storage);

}  // namespace kestrune
