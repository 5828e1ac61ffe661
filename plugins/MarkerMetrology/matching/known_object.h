// SPDX-License-Identifier: Apache-2.0
//
// A rigid object with markers at known places, found among the points of one exposure by mutual distances. Where it is
// found it decides between pairs that the exposure alone leaves open.
#pragma once

#include <Eigen/Core>
#include <vector>

#include "kestrune/MarkerMetrology/matching.h"

namespace kestrune::matching {

/// A candidate pair as a point in space. There may be many wrong ones for each right one.
struct SpacePoint {
    int left = -1, right = -1;   ///< lines of both eyes, from 0: two points that share one cannot both be right
    Eigen::Vector3d place;       ///< any common frame, unit of the rig
    Eigen::Matrix3d covariance;  ///< of the place; a point without a proper one is left out
    double logRadius = 0;        ///< logarithm of unit of the rig
    double sigmaRadius = 0;      ///< of the logarithm; 0 or not finite: the radius says nothing
    double probability = 0;      ///< what the exposure alone says, 0 to 1
};

struct ObjectFit {
    bool found = false;      ///< whether the object is seen, and where, without doubt
    bool ambiguous = false;  ///< another pose explains about as much; `found` is false then, and the pose one of them
    bool mirrored = false;   ///< a mirror image of the object explains far more; `found` is false then
    Eigen::Matrix3d rotation = Eigen::Matrix3d::Identity();
    Eigen::Vector3d shift = Eigen::Vector3d::Zero();  ///< place = rotation * centre + shift
    int seen = 0;                                     ///< known markers that have a point
    double logOdds = 0;  ///< for the object in that pose against points by chance, nats; poses integrated over
    std::vector<double> evidence;  ///< of each point: log of the density of its place and radius given the object
                                   ///< over that by chance, nats, 0 or above; 0 where the object says nothing
    std::vector<int> known;        ///< of each point the known marker that it is, or -1
};

/// Bounded in time. The order of either list changes nothing but order, to the bit. Mirror images are no poses; but a
/// flat object may be seen from behind, since points have no side.
ObjectFit fitObject(const std::vector<SpacePoint>& points, const std::vector<KnownMarker>& object);

}  // namespace kestrune::matching
