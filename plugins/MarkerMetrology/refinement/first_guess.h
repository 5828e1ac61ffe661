// SPDX-License-Identifier: Apache-2.0
//
// Where the fit of a marker begins.
#pragma once

#include <opencv2/core.hpp>
#include <optional>
#include <vector>

#include "kestrune/MarkerExtractor.h"
#include "kestrune_geometry/smooth_ellipse.h"
#include "refinement/disc_fit.h"
#include "refinement/marker_window.h"

namespace kestrune::refinement {

/// The ellipse that a record has: of its conic, of its ellipse where there is no conic, or of the contour's points;
/// none where there is neither. In the record's pixels.
std::optional<geometry::SmoothEllipse> ellipseOfRecord(const Corner& corner);

/// Levels and blur of a rim, from grey levels alone. The blur is told by the sum of M (1 - M) over the rim's pixels, M
/// the grey level between ground and marker: for a straight edge that is its length times blur / sqrt(pi), wherever in
/// the window the edge is.
///
/// @param window  scratch; holds a window about the rim afterwards
std::optional<DiscModel> firstGuess(const cv::Mat& image, const geometry::SmoothEllipse& ellipse,
                                    const std::vector<Neighbour>& neighbours, MarkerWindow& window);

}  // namespace kestrune::refinement
