// SPDX-License-Identifier: Apache-2.0
//
// Pairs of markers of which only the centres are known.
#pragma once

#include <kestrune/MarkerMetrology.h>

#include <array>
#include <opencv2/core.hpp>
#include <string>
#include <vector>

namespace kestrune::measure {

struct CentrePair {
    std::array<int, 2> place;          ///< in the two lists
    std::array<cv::Point2d, 2> pixel;  ///< the centres, as they were
    cv::Vec3d point;                   ///< left camera frame, unit of the calibration
};

/// An extractor that holds the rig. Lists tell no image size, and the matching has no use for one: only the
/// rectification depends on it.
///
/// @param origin  the calibration's name, for the error's text.
/// @throws InputError
CircleMarkerExtractor rigOfLists(Rig rig, const std::string& origin);

/// The fundamental matrix of the rig.
cv::Mat fundamentalOf(CircleMarkerExtractor& rig);

/// @param left, right  read are `x` and `y`, undistorted px.
/// @throws cv::Exception  from the library.
std::vector<CentrePair> matchCentres(const CircleMarkerExtractor& rig, const cv::Mat& fundamental,
                                     std::vector<Corner>& left, std::vector<Corner>& right);

}  // namespace kestrune::measure
