// SPDX-License-Identifier: Apache-2.0
//
// Markers of one image placed in space by a depth image.
#pragma once

#include <kestrune/MarkerMetrology.h>

#include <opencv2/core.hpp>
#include <string>
#include <vector>

#include "markers.h"

namespace kestrune::measure {

/// A marker with a depth.
struct DepthPoint {
    int id;             ///< of the marker
    cv::Point2d pixel;  ///< its centre, as it was
    cv::Vec3d point;    ///< camera frame, z away from the camera, unit of the depth
};

/// A depth image as the library takes it: `CV_32FC1`, 0 where nothing was measured. Cameras say that in other ways as
/// well, and any other value would count as a depth.
///
/// @param name   for the error's text.
/// @param scale  unit of the result for each unit of the image.
/// @param size   of the image with the markers.
/// @throws InputError  unless it is 32-bit float or 16-bit, of one channel and of that size.
cv::Mat asDepth(const cv::Mat& depth, const std::string& name, double scale, cv::Size size);

/// Refuses settings that leave the lens in the pixels: the centres are both looked up in the depth image and sent out
/// as rays of the camera matrix, which holds where nothing is left of the lens in them.
///
/// @param settingsName, calibrationName  for the error's text.
/// @throws InputError
void requireUndistorted(const std::string& settingsName, const std::string& calibrationName, const Settings& settings,
                        const Camera& camera);

/// Those of the markers that have a depth, in their order. @throws cv::Exception
std::vector<DepthPoint> placeByDepth(CircleMarkerExtractor& extractor, const std::vector<Marker>& markers,
                                     cv::Mat& depth, const cv::Mat& cameraMatrix);

}  // namespace kestrune::measure
