// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <opencv2/core.hpp>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "MarkerExtractor/extraction/ellipse_gates.h"
#include "MarkerExtractor/extraction/judged_candidates.h"
#include "MarkerExtractor/extraction/radial_contours.h"
#include "canny/subpixel_contours.h"
#include "kestrune/MarkerExtractor.h"

namespace kestrune {

/// A call of `CircleExtractSimple` whose image, settings, tables and lens have been found good.
class SimpleCall {
  public:
    /// @param image  not empty; kept as a header.
    /// @throws cv::Exception for what the path cannot work with. Nothing was written then.
    SimpleCall(const cv::Mat& image, const CircleMarkerExtractor& extractor, int cameraIndex,
               const CicrleConfigs& configs);

    /// The path from the image to its markers.
    ///
    /// @param extractor  its scratch storage and direction tables are written.
    /// @param corners    the result, which must be empty.
    /// @param findings   what became of each candidate, and what was never one; may be null.
    /// @return           the ellipse of each marker.
    std::vector<cv::RotatedRect> run(CircleMarkerExtractor& extractor, std::vector<Corner>& corners,
                                     Findings* findings) const;

    /// The same, with the extractor's `markerRects` and `markerName`.
    ///
    /// @return whether a marker was found.
    bool extract(CircleMarkerExtractor& extractor, std::vector<Corner>& corners) const;

  private:
    std::vector<SubpixelContour> contours(CircleMarkerExtractor& extractor, const Findings* findings) const;

    cv::Mat image_;
    int scale_;
    std::optional<LensModel> lens_;
    std::variant<EdgeSettings, RadialSettings> frontEnd_;
    SimpleGates gates_;
    std::string markerName_;
};

}  // namespace kestrune
