// SPDX-License-Identifier: Apache-2.0
//
// Where the search for a disc begins: the place where the rays of both ellipses come nearest to each other, and the
// normals of the circles that each eye alone could have seen, of which there are two.
#pragma once

#include <array>
#include <optional>

#include "refinement/disc_projection.h"

namespace kestrune {

/// An eye of a rig and what it saw. A point X in left camera coordinates is turn X + shift in its own ones.
struct DiscEye {
    geometry::Pinhole camera;
    Eigen::Matrix3d turn;
    Eigen::Vector3d shift;
    EllipseNumbers ellipse;  ///< in pixels without lens distortion

    SpaceDisc inOwnFrame(const SpaceDisc& disc) const {
        return {turn * disc.centre + shift, turn * disc.normal, disc.radius};
    }
};

/// Discs to begin with, in the frame of the left camera: with the normals that the left eye allows, then those of the
/// right one. They face the eye that they are of.
///
/// @returns  nothing where the rays are parallel, or meet behind an eye.
std::optional<std::array<SpaceDisc, 4>> discStarts(const std::array<DiscEye, 2>& eyes);

}  // namespace kestrune
