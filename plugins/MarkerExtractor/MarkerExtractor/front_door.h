// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <opencv2/core.hpp>
#include <variant>
#include <vector>

#include "MarkerExtractor/extraction/complex.h"
#include "MarkerExtractor/extraction/simple.h"
#include "kestrune/MarkerExtractor.h"

namespace kestrune {

/// A call of the path that `ExtractCircleMarker` takes, with everything that it may refuse looked at.
class ExtractionCall {
  public:
    /// @param image  not empty; kept as a header.
    /// @throws cv::Exception for what the path cannot work with. Nothing was written then.
    ExtractionCall(const cv::Mat& image, const CircleMarkerExtractor& extractor, int cameraIndex,
                   const CicrleConfigs& configs);

    /// As `ExtractCircleMarker`.
    bool extract(CircleMarkerExtractor& extractor, std::vector<Corner>& corners) const;

  private:
    std::variant<SimpleCall, RimCall> call_;
    int cameraIndex_;
};

}  // namespace kestrune
