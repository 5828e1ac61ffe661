// SPDX-License-Identifier: Apache-2.0
//
// What is no camera and no rig is refused by the name of the field, before anything is done with it.
#pragma once

#include "kestrune/MarkerMetrology/rig.h"

namespace kestrune {

/// @param name  of the camera, as the caller knows it: the text begins with it and the field.
/// @throws cv::Exception  `StsBadArg` unless the matrix is one of a camera without skew, `CV_64FC1`, and the distortion
///         is empty or of as many coefficients as OpenCV's model may have.
void requireCamera(const Camera& camera, const char* name);

/// @throws cv::Exception  `StsBadArg` unless both cameras, the rotation and the translation are such, and the
/// uncertainty holds
///         standard deviations.
void requireRig(const RigMatrices& rig);

}  // namespace kestrune
