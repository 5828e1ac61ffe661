// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <opencv2/core.hpp>
#include <optional>
#include <string>
#include <vector>

#include "MarkerExtractor/extraction/judged_candidates.h"
#include "MarkerExtractor/extraction/marker_fit.h"
#include "MarkerExtractor/extraction/rim_gates.h"
#include "ellipsedetection/ellipse_candidates.h"
#include "kestrune/MarkerExtractor.h"

namespace kestrune {

/// Two ellipses of one edge: their centres nearer than this share of the axes, their axes alike to this share.
constexpr double kRimMergeTolerance = 0.3;

/// A call of `CircleExtractComplex` whose image, settings and lens have been found good.
class RimCall {
  public:
    /// @param image  not empty; kept as a header.
    /// @throws cv::Exception for what the path cannot work with. Nothing was written then.
    RimCall(const cv::Mat& image, const CircleMarkerExtractor& extractor, int cameraIndex,
            const CicrleConfigs& configs);

    /// The path from the image to its markers, each with its number as `id`.
    ///
    /// @param extractor  its scratch storage is written.
    /// @param findings   what became of each candidate, and what was never one; may be null.
    std::vector<Corner> run(CircleMarkerExtractor& extractor, Findings* findings) const;

    /// The same, with the extractor's `markerRects` and `markerName`. Nothing of the result is written before all of it
    /// is there.
    ///
    /// @param corners  the result, which must be empty.
    /// @return         whether a marker was found.
    bool extract(CircleMarkerExtractor& extractor, std::vector<Corner>& corners) const;

    /// The front end of `run` alone.
    ///
    /// @param candidates  appended to.
    /// @param drops       may be null.
    /// @return            the images that the gates read, which lie in the extractor's scratch storage.
    RimImages candidates(CircleMarkerExtractor& extractor, std::vector<std::vector<cv::Point>>& candidates,
                         Drops* drops) const;

  private:
    /// `run` without findings, on any number of threads.
    std::vector<Corner> runFast(CircleMarkerExtractor& extractor) const;

    cv::Mat image_;
    std::optional<LensModel> lens_;
    RimSettings settings_;
    RimGates gates_;
    std::string markerName_;
};

}  // namespace kestrune
