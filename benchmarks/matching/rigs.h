// SPDX-License-Identifier: Apache-2.0
//
// Camera pairs of all shapes.
#pragma once

#include "draws.h"
#include "kestrune/MarkerMetrology/rig.h"
#include "kestrune_scene/scene.h"
#include "kinds.h"

namespace kestrune::bench {

/// The world is the frame of the left camera.
struct TrueRig {
    scene::Rig cameras;
    cv::Vec3d target;   ///< middle of the object
    cv::Matx33d frame;  ///< columns: along the baseline, down, away from both eyes
    double room;        ///< half width of what both images show about the target, px
};

TrueRig makeRig(const SceneKind& kind, Draws& draws);

/// The same with its right camera turned about its own centre.
TrueRig turned(const TrueRig& rig, const cv::Vec3d& axis, double degrees);

/// The same as a calibration sees it: off by what its uncertainty says.
///
/// @param rotation  standard deviation of each part of the rotation, rad; the others in proportion.
RigMatrices calibrated(const scene::Rig& rig, double rotation, Draws& draws);

/// Without uncertainty.
RigMatrices matricesOf(const scene::Rig& rig);

/// Distance of two points from each other's epipolar lines, half of it in each eye, px, signed.
double epipolarDistance(const RigMatrices& rig, const cv::Point2d& left, const cv::Point2d& right);

}  // namespace kestrune::bench
