// SPDX-License-Identifier: Apache-2.0
//
/// @file
/// Discs in space from the estimates of both eyes, with their uncertainty.
#pragma once

#include <array>
#include <opencv2/core.hpp>

#include "kestrune/MarkerMetrology/refinement.h"
#include "kestrune/MarkerMetrology/rig.h"

namespace kestrune {

/// A disc in the frame of the left camera (x right, y down, z away), in the unit of the rig's positions.
struct DiscEstimate {
    bool found =
        false;          ///< false: the two ellipses are no image of one disc in front of both eyes; nothing else is set
    cv::Vec3d centre;   ///< of the disc, not of its images
    cv::Vec3d normal;   ///< unit, towards the cameras
    double radius = 0;  ///< unit of the rig's positions

    /// Of (centre x, y, z, turn of the normal about `tangents[0]` and `tangents[1]` in radians, radius).
    cv::Matx<double, 6, 6> covariance = cv::Matx<double, 6, 6>::zeros();
    std::array<cv::Vec3d, 2> tangents;  ///< unit, with the normal a right-handed frame: t0 x t1 = normal

    /// What the uncertainty of the calibration adds to the centre's covariance: common to all points of a rig, so it
    /// does not average out. Zero where the calibration tells none.
    cv::Matx33d calibrationCovariance = cv::Matx33d::zeros();

    /// Sum of the squared residuals of both ellipses in units of their sigmas: chi-square of 4 degrees of freedom for
    /// one disc seen rightly by a right calibration.
    double chiSquare = 0;

    /// Of x, y and z, by what both eyes saw alone.
    cv::Matx33d centreCovariance() const { return covariance.get_minor<3, 3>(0, 0); }
    cv::Matx33d normalCovariance() const;  ///< of the unit vector, of rank 2
    double radiusSigma() const;            ///< standard deviation of the radius
};

/// The most likely disc for what both eyes saw (maximum likelihood): Gauss-Newton on centre, normal and radius against
/// both ellipses with their covariances. Eccentricity, the offset of an ellipse's centre from the image of the disc's
/// centre, is part of the model.
///
/// The more a disc faces an eye, the less its ellipse tells of the normal. Of draws the errors of the normal scatter as
/// the covariance says, to 5 %, while its sigmas are below an eighth of the angle between the normal and the nearer
/// eye's ray; by up to twice as much where they reach half of it (a marker of 8 px radius whose ellipse is known to 0.1
/// px). Centre and radius keep their sigmas there.
///
/// @param eyes  left, right; in pixels without lens distortion (`undistorted`), refined or not.
/// @param rig   as calibrated; distortion is read only for what `rig.uncertainty` does to the centre.
/// @throws cv::Exception  `StsBadArg` for a rig that is none, or whose uncertainty holds a number that is no standard
/// deviation.
KESTRUNE_API DiscEstimate measureDisc(const std::array<MarkerEstimate, 2>& eyes, const RigMatrices& rig);

}  // namespace kestrune
