// SPDX-License-Identifier: Apache-2.0
//
// A disc's rim in an ideal camera, with derivatives. The lines that touch the image of a rim of centre X, normal n and
// radius r are those with l^T (X X^T - r^2 (I - n n^T)) l = 0; what follows is that ellipse written out, without the
// differences of large numbers that the matrix would have.
#pragma once

#include <Eigen/Core>

#include "kestrune_geometry/pinhole.h"
#include "kestrune_geometry/smooth_ellipse.h"

namespace kestrune {

using EllipseNumbers = Eigen::Matrix<double, 5, 1>;  ///< x, y, s, e1, e2 of a `SmoothEllipse`, px

/// In the frame of a camera or of the rig.
struct SpaceDisc {
    Eigen::Vector3d centre, normal;  ///< the normal a unit vector
    double radius;
};

struct ProjectedDisc {
    EllipseNumbers ellipse;
    /// By centre (0 to 2), normal (3 to 5) and radius. Those by the normal hold for moves that leave it a unit vector.
    Eigen::Matrix<double, 5, 7> derivative;
};

/// The second moments p = a^2 cos^2 t + b^2 sin^2 t, q, t of an ellipse: the inverse of its conic's quadratic part.
struct Moments {
    double p, q, t;
};
Moments momentsOf(const EllipseNumbers& ellipse);

/// Image of a disc given in the frame of the camera.
///
/// @returns  false where the disc is not wholly in front of the camera, or seen from its edge: `image` is not set then.
bool projectDisc(const SpaceDisc& disc, const geometry::Pinhole& camera, ProjectedDisc& image);

}  // namespace kestrune
