// SPDX-License-Identifier: Apache-2.0
//
// What an uncertain calibration does to a disc in space: the image stays as it was, rays and poses move.
#pragma once

#include <array>

#include "kestrune/MarkerMetrology/rig.h"
#include "refinement/disc_start.h"

namespace kestrune {

/// How the disc's centre follows a change of what an eye measured less what the disc should look like there.
using CentreGain = Eigen::Matrix<double, 3, 5>;

/// Covariance of the centre from `rig.uncertainty`, to first order.
///
/// @param disc   in the frame of the left camera.
/// @param gains  of both eyes.
/// @param right  image of the disc in the right eye.
Eigen::Matrix3d calibrationCovariance(const RigMatrices& rig, const std::array<DiscEye, 2>& eyes, const SpaceDisc& disc,
                                      const std::array<CentreGain, 2>& gains, const ProjectedDisc& right);

}  // namespace kestrune
