// SPDX-License-Identifier: Apache-2.0
//
// Cameras that have turned since they were calibrated. Their pairs are off their epipolar planes by a common pattern:
// with small turns omega of the right eye about its own centre, and eta of both (which is one of the baseline),
//   phi_R - phi_L = -J_R omega - (J_R - J_L) eta,  J = d phi / d turn of a ray,
// in the epipolar frame, of which eta has no part along the baseline. Five numbers; those that the images hardly tell
// are held by how little a rig turns.
#pragma once

#include <Eigen/Core>
#include <vector>

#include "matching/exposure_solver.h"

namespace kestrune::matching {

struct RigMotion {
    Eigen::Matrix<double, 5, 1> turns = Eigen::Matrix<double, 5, 1>::Zero();  ///< omega, eta about y and z; radians
    double size = 0;                                                          ///< RMS of the pattern over the pairs, px
    double gained = 0;  ///< of chi-square, beyond the told or estimated sigmas
    double sigma = 0;   ///< of a pair's distance from its epipolar plane, once the pattern is taken out, px
};

/// The pattern of the pairs that are more probable than not.
RigMotion motionOf(const Views& views, const ExposureSolver& solver, const Solution& solution);

/// Motions under which as many markers as can be have a partner on their epipolar plane: a search over turns about the
/// baseline and about the view, for rigs that have moved by so much that nothing matches.
///
/// @returns the best one, and behind it one by another turn about the baseline if that brings nearly as many.
std::vector<RigMotion> searchMotions(const Views& views);

/// The epipolar frame of the moved rig.
EpipolarFrame movedFrame(const EpipolarFrame& frame, const RigMotion& motion);

/// R and T of a frame.
cv::Matx33d rotationOf(const EpipolarFrame& frame);
cv::Vec3d translationOf(const EpipolarFrame& frame);

/// Angle between the relative orientations of two rigs, radians.
double turnBetween(const EpipolarFrame& a, const EpipolarFrame& b);

}  // namespace kestrune::matching
