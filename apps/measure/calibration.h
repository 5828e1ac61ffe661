// SPDX-License-Identifier: Apache-2.0
//
// Calibration files. Two forms are read: cameras and poses as the library's records hold them, and the matrices that
// OpenCV's stereo calibration writes. All that is wrong with a file is told at once, each problem with file and field.
#pragma once

#include <kestrune/MarkerExtractor.h>

#include <array>
#include <opencv2/core.hpp>
#include <string>

namespace kestrune::measure {

/// One eye's camera matrix and distortion coefficients, `CV_64F`; both empty where no calibration is known.
struct Camera {
    cv::Mat matrix, distortion;
    cv::Size size{};  ///< of the images, px; empty where the file does not tell
};

/// Left and right.
using Calibration = std::array<Camera, 2>;

/// Reads the cameras alone, of either form.
///
/// @param eye  the one that must be there: 0 left, 1 right.
/// @throws InputError  with a line for each field that is missing or wrong.
Calibration loadCalibration(const std::string& file, int eye);

/// What the library's calibration intake takes, left and right.
struct StereoCalibration {
    std::array<Pose_<double>, 2> poses;
    std::array<Camera_<double, 2, 2>, 2> cameras;
    cv::Size size;  ///< of the images, px; empty where the file does not tell
    int rectifyFlags = 0;
};

/// @throws InputError  with a line for each field that is missing or wrong.
StereoCalibration loadStereoCalibration(const std::string& file);

/// Writes the rig in the form of OpenCV's stereo calibration. @throws InputError, OutputError
void writeCalibration(const std::string& file, const StereoCalibration& calibration);

/// The camera in OpenCV's terms.
Camera asMatrices(const Camera_<double, 2, 2>& camera);

/// An extractor that went through the intake. @throws cv::Exception
CircleMarkerExtractor calibratedExtractor(const StereoCalibration& calibration);

}  // namespace kestrune::measure
