// SPDX-License-Identifier: Apache-2.0
//
/// @file
/// Calibration files. Two forms are read: cameras and poses as the library's records hold them, and the matrices that
/// OpenCV's stereo calibration writes; `docs/calibration.md` shows both. All that is wrong with a file is told at once,
/// each problem with file, line and field.
#pragma once

#include <array>
#include <opencv2/core.hpp>
#include <string>

#include "kestrune/MarkerExtractor.h"

namespace kestrune {

/// One eye, in px, `CV_64F`; both matrices empty where no calibration is known.
struct Camera {
    cv::Mat matrix;      ///< 3 by 3
    cv::Mat distortion;  ///< coefficients in OpenCV's order
    cv::Size size{};     ///< of the images, px; empty where the file does not tell
};

/// Left and right.
using Cameras = std::array<Camera, 2>;

/// Reads the cameras alone.
///
/// @param file  of either form.
/// @param eye   the one that must be there: 0 left, 1 right.
/// @throws InputError  with a line for each field that is missing or wrong.
KESTRUNE_API Cameras readCameras(const std::string& file, int eye);

/// How well a calibration knows its numbers: standard deviations, as if each were off by itself. 0 where none is known.
struct RigUncertainty {
    std::array<std::array<double, 4>, 2> cameras{};      ///< left, right: of fx, fy, cx, cy, px
    std::array<std::array<double, 5>, 2> distortions{};  ///< of k1, k2, p1, p2, k3
    std::array<double, 3> rotation{};     ///< of the rotation vector of R, from left to right camera, rad
    std::array<double, 3> translation{};  ///< of T, unit of the points
};

/// What the calibration intake takes, left and right.
struct Rig {
    std::array<Pose_<double>, 2> poses;            ///< A point X of the world is A (X - c) to an eye: 9 of A, 3 of c.
    std::array<Camera_<double, 2, 2>, 2> cameras;  ///< fx, fy, cx, cy, k1, k2, p1, p2, k3; px
    cv::Size size;                                 ///< of the images, px; empty where the file does not tell
    int rectifyFlags = 0;                          ///< `flags` of `cv::stereoRectify`
    RigUncertainty uncertainty{};                  ///< of `matricesOf` the rig; zeros where the file tells none
};

/// Reads a calibration file of either form.
///
/// @throws InputError  with a line for each field that is missing or wrong.
KESTRUNE_API Rig readRig(const std::string& file);

/// Writes the rig in the form of OpenCV's stereo calibration, with the left camera as the world: read again, cameras
/// are the same numbers, and the poses differ by rounding.
///
/// @throws InputError, OutputError
KESTRUNE_API void writeRig(const std::string& file, const Rig& rig);

/// A rig in the terms of OpenCV's stereo calibration, with the left camera as the world.
struct RigMatrices {
    Cameras cameras;   ///< the distortion of each may have the 4, 5, 8, 12 or 14 coefficients of OpenCV, of which those
                       ///< behind the fifth must be 0
    cv::Mat rotation;  ///< R, 3 by 3: a point X in left camera coordinates is R X + T in right ones
    cv::Mat translation;           ///< T, 3 by 1 or 1 by 3, unit of the points
    cv::Size size{};               ///< of the images, px; empty where it is not known
    int rectifyFlags = 0;          ///< `flags` of `cv::stereoRectify`
    RigUncertainty uncertainty{};  ///< of all of these; zeros where the calibration tells none
};

/// The rig of these matrices.
///
/// @param matrices  of both eyes; R and T must be there, the size may be empty.
/// @param origin    stands for a file in the texts of errors.
/// @throws InputError  as `readRig`, by the names of OpenCV's file: M1, D1, M2, D2, R, T, M1_sigma, ...
KESTRUNE_API Rig rigOf(const RigMatrices& matrices, const std::string& origin = "rig");

/// The matrices of a rig.
KESTRUNE_API RigMatrices matricesOf(const Rig& rig);

/// The camera in OpenCV's terms.
KESTRUNE_API Camera asMatrices(const Camera_<double, 2, 2>& camera);

/// An extractor that went through the intake. @throws cv::Exception  as the intake does.
KESTRUNE_API CircleMarkerExtractor calibratedExtractor(const Rig& rig);

}  // namespace kestrune
