// SPDX-License-Identifier: Apache-2.0
//
// The road of an exposure: both images to markers, markers to pairs, pairs to points. The operation that a host calls
// is `getStereoMarker3dPoints` on images.
#pragma once

#include <array>
#include <opencv2/core.hpp>
#include <utility>
#include <vector>

#include "MarkerExtractor/stereo/pair_verdicts.h"
#include "kestrune/MarkerExtractor.h"

namespace kestrune {

/// What a stereo measurement says beyond its result.
struct ExplainedMatch {
    std::vector<std::pair<int, int>> pairs;  ///< (left, right): places in the lists of rectangles
    PairVerdicts verdicts;
};

/// `getStereoMarker3dPoints` on images, with the same result, and why markers were not paired.
std::vector<std::pair<Corner, Corner>> explainStereoMarker3dPoints(
    const cv::Mat& leftImage, const cv::Mat& rightImage, CircleMarkerExtractor& extractor,
    std::vector<Point3_<double>>& points, std::vector<cv::RotatedRect>& leftRects,
    std::vector<cv::RotatedRect>& rightRects, const CicrleConfigs& configs, ExplainedMatch& explained);

/// Its second half: pairs and points of markers that were extracted before, and perhaps measured better since.
///
/// @param corners  of the left and the right eye, as `ExtractCircleMarker` gives them; their places in the lists are
///                 those in `explained`.
/// @throws         as `getStereoMarker3dPoints` where both eyes show markers.
std::vector<std::pair<Corner, Corner>> explainStereoMatch(std::array<std::vector<Corner>, 2> corners,
                                                          CircleMarkerExtractor& extractor,
                                                          std::vector<Point3_<double>>& points,
                                                          const CicrleConfigs& configs, ExplainedMatch& explained);

}  // namespace kestrune
