// SPDX-License-Identifier: Apache-2.0
//
// All markers of an image, in two passes: each by itself in even light; then, where the exposure asks for it, in the
// light that all of them show and with what their neighbours' blur adds.
#pragma once

#include <opencv2/core.hpp>
#include <optional>
#include <vector>

#include "kestrune_geometry/smooth_ellipse.h"
#include "refinement/marker_fit.h"

namespace kestrune::refinement {

/// @param image   `CV_8UC1` or `CV_16UC1`
/// @param starts  px of the image; none where a record has no outline
/// @param mostDegree  of the light, 0 to 2
/// @returns the markers in the order of the starts, the same for any number of threads
std::vector<FittedMarker> fitExposure(const cv::Mat& image,
                                      const std::vector<std::optional<geometry::SmoothEllipse>>& starts,
                                      int mostDegree);

}  // namespace kestrune::refinement
