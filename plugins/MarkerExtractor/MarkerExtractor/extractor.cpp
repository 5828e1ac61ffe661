// SPDX-License-Identifier: Apache-2.0
#include "MarkerExtractor/camera/calibration_check.h"
#include "MarkerExtractor/camera/undistort.h"
#include "kestrune/MarkerExtractor.h"

namespace kestrune {

// The special members are defined here, not in the header, so that they are exported once and a host need not agree
// with the library on their inlining.
CircleMarkerExtractor::CircleMarkerExtractor() = default;
CircleMarkerExtractor::CircleMarkerExtractor(const CircleMarkerExtractor& other) = default;
CircleMarkerExtractor::~CircleMarkerExtractor() = default;
CircleMarkerExtractor& CircleMarkerExtractor::operator=(const CircleMarkerExtractor& other) = default;

void CircleMarkerExtractor::UndistortCorners(std::vector<Corner>& corners, const cv::Mat& cameraMatrix,
                                             const cv::Mat& distCoeffs) {
    if (corners.empty()) return;
    requireData(cameraMatrix, "cameraMatrix");
    requireDistortion(distCoeffs, "distCoeffs");
    for (Corner& corner : corners) undistortCorner(corner, cameraMatrix, distCoeffs);
}

}  // namespace kestrune
