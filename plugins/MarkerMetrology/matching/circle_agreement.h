// SPDX-License-Identifier: Apache-2.0
//
// Whether the ellipses of two eyes are images of one disc. Unknown are its normal, as q about the left eye's cone, and
// its radius r; the distances D follow from the two rays:
//   log rho = log r - log D and w = -q^2 in each eye, q_R = (q - g) / (1 + g q), g = tan(gamma / 2),
// with gamma the angle between the rays: a turn about the common y axis is a Moebius map of normals. Six numbers for
// three unknowns leave three that must agree; the distance from the epipolar line is a fourth.
// Each cone has two circles, so that there may be several ends; each is a disc of its own.
#pragma once

#include <Eigen/Core>
#include <array>

#include "matching/sightline.h"

namespace kestrune::matching {

struct CircleFit {
    Complex q;               ///< about the left cone
    Eigen::Vector3d normal;  ///< unit, towards the left eye, epipolar frame
    double sigmaNormal = 0;  ///< radians, of each of its two directions
    double facing = 0;       ///< mean of the cosines between normal and both rays
    double chiSquare = 0;    ///< of 3 degrees of freedom
    double logVolume =
        0;  ///< log of the integral of the likelihood over normal (solid angle) and log r, + chiSquare / 2
    double logRadius = 0, sigmaRadius = 0;   ///< log of the radius; unit of the rig
    double logDepth = 0, sigmaDepth = 0;     ///< log of the rig's depth, the epipolar frame's z
    double epipolar = 0, sigmaEpipolar = 0;  ///< right plane less left plane, radians
    double depthByAlpha = 0;                 ///< |d log depth / d alpha| of the right eye
};

/// The ends that the two normals of each eye lead to, likely ones first, at most two.
struct Agreement {
    int count = 0;
    std::array<CircleFit, 2> fits;
};

/// @param most  a chi-square of more than this is no agreement.
/// @returns none where the rays meet behind an eye or not at all, or a normal faces away from one of them.
Agreement agreementOf(const Sightline& left, const Sightline& right, double baseline, double most);

}  // namespace kestrune::matching
