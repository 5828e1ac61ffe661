// SPDX-License-Identifier: Apache-2.0
//
// Small rendered exposures with the exact calibration of their rig and the markers that the library finds in them, made
// once for each process: where a fuzzer starts from, to spoil a little of it.
#pragma once

#include <array>
#include <opencv2/core.hpp>
#include <vector>

#include "kestrune/MarkerExtractor.h"

namespace kestrune::fuzz {

/// The ways from images to points.
enum Path { kRows, kRadial, kRims, kPathCount };

/// Settings under which the exposures' markers are found, paired and placed.
CicrleConfigs goodConfigs(Path path);

struct Eyes {
    std::vector<Corner> left, right;
};

struct RenderedExposure {
    std::array<cv::Mat, 2> image;  ///< CV_8UC1
    CircleMarkerExtractor extractor;
    bool isRectified = false;                ///< seen through the rectified cameras
    std::array<Eyes, kPathCount> found;      ///< by each path, in undistorted pixels
    std::array<Eyes, kPathCount> rectified;  ///< the same in rectified pixels
    std::vector<Pose_<double>> poses;        ///< what the intake was given
    std::vector<Camera_<double, 2, 2>> cameras;
};

/// A rig side by side, its rectified cameras, and a rig with one camera above the other.
constexpr int kExposureCount = 3;
const RenderedExposure& exposure(int which);

}  // namespace kestrune::fuzz
