// SPDX-License-Identifier: Apache-2.0
//
// What one eye tells of a disc, whatever the other says: the cone of rays to its rim, in coordinates that are made for
// pairs. The x axis of the rig's frame here is the baseline, from left to right. Each cone has an axis; phi is the turn
// of the axis about the baseline, which both eyes share (the epipolar plane), alpha the angle from the baseline. About
// its axis a cone is seen as if the camera looked straight at it:
//   rho = radius / distance of the disc's centre,  w = -q^2 with |q|^2 = tan^2(t / 2) for a tilt t,
// and q, the stereographic image of the disc's normal (0: it faces the eye), is +-sqrt(-w): a cone has two circles.
// Frames about the axis: z along it, x in the epipolar plane towards the right eye, y = z x x.
#pragma once

#include <Eigen/Core>
#include <array>
#include <complex>
#include <optional>

#include "kestrune/MarkerMetrology/refinement.h"
#include "kestrune/MarkerMetrology/rig.h"
#include "kestrune_geometry/pinhole.h"

namespace kestrune::matching {

using Complex = std::complex<double>;

/// The rig with its baseline as x axis, and both eyes in it.
struct EpipolarFrame {
    std::array<geometry::Pinhole, 2> cameras;
    std::array<Eigen::Matrix3d, 2> toFrame;  ///< from the frame of each camera
    Eigen::Matrix3d fromLeft;                ///< from the left camera's to this one: `toFrame[0]`
    double baseline;                         ///< unit of the rig

    /// @param rotation, translation  R and T of the rig.
    static EpipolarFrame of(const RigMatrices& rig, const cv::Matx33d& rotation, const cv::Vec3d& translation);
};

struct Sightline {
    double phi = 0, alpha = 0;            ///< of the cone's axis, radians
    Eigen::Vector3d axis, side, up;       ///< z, x and y about the axis, in the epipolar frame
    double logRho = 0;                    ///< log(radius / distance)
    Complex w;                            ///< shape
    Complex q;                            ///< one of the two normals; the other is -q
    Eigen::Matrix3d information;          ///< inverse of the covariance of (log rho, Re w, Im w)
    double logDeterminant = 0;            ///< of that covariance
    double sigmaRho = 0, sigmaW = 0;      ///< of log rho, and of each part of w
    double sigmaPhi = 0, sigmaAlpha = 0;  ///< radians
    double shift = 0;                     ///< the disc's centre is off the axis by `shift` 2 q / (1 - |q|^2), radians
    double logSine = 0, cotangent = 0;    ///< of alpha
    double forward = 0;                   ///< share of a distance along the axis that is depth of the rig
    double contrast = 0;                  ///< inside less outside, grey levels; NaN where it is not known
    double pixel = 0;                     ///< angle of a pixel, radians
};

/// @returns nothing for an estimate whose numbers are not finite, that is no ellipse, or whose covariance is none.
std::optional<Sightline> sightlineOf(const MarkerEstimate& estimate, const EpipolarFrame& frame, std::size_t eye);

/// Unit normal of a disc, towards the eye, in the epipolar frame.
inline Eigen::Vector3d normalOf(const Sightline& line, const Complex& q) {
    const double size = std::norm(q), scale = 1 / (1 + size);
    return scale * (2 * q.real() * line.side + 2 * q.imag() * line.up - (1 - size) * line.axis);
}

}  // namespace kestrune::matching
