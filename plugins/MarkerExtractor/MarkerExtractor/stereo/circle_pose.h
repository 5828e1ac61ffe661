// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <Eigen/Core>
#include <array>
#include <opencv2/core.hpp>
#include <optional>
#include <vector>

#include "kestrune/MarkerExtractor/calibration_records.h"
#include "kestrune/MarkerExtractor/records.h"
#include "kestrune_geometry/conic.h"

namespace kestrune {

/// A circle in space as one camera sees it. A conic leaves a choice of two.
struct CirclePose {
    double radius;                       ///< unit of the rough centre; NaN for a conic without a real point
    std::array<cv::Vec3d, 2> normals;    ///< unit, towards the camera
    std::array<cv::Point2f, 2> centres;  ///< px, in step with `normals`: where the circle's centre projects to
};

/// Circle whose image is `conic` and whose centre is as far away as `point`.
///
/// With C the conic's matrix and K the camera's, the eigenvalues e0 < 0 < e1 <= e2 and unit eigenvectors u0, u1, u2 of
/// (K^T C K)^-1 give the radius |point| sqrt(e2 / -e0) and the normals (u1 +- s u0) x u2 with s = sqrt((e2 - e1) / e1);
/// the centre with normal n projects to (K^T C)^-1 n. After Y. Zheng, W. Ma, Y. Liu, "Another way of looking at
/// monocular circle pose estimation" (2008).
///
/// @param camera  K, px.
/// @param point   rough centre in the camera's frame; only its length and the side that it lies on count.
/// @return        nothing for a finite conic that is a point, or consists of lines.
/// @throws std::runtime_error "Eigen decomposition failed." for a conic that is not finite, and if the eigen solver
///         does not converge.
std::optional<CirclePose> circlePose(const Eigen::Matrix3d& camera, const cv::Vec3d& point,
                                     const geometry::Conic& conic);

/// The same in lists: two normals, or none with a radius of NaN.
struct CircleSolution {
    double radius;
    std::vector<cv::Point3d> normals;
};

/// @param corner   `conic` must be filled.
/// @param centres  replaced, in step with the normals.
CircleSolution solveCirclePose(const Eigen::Matrix3d& camera, const Point3_<double>& point, const Corner& corner,
                               std::vector<cv::Point2f>& centres);

}  // namespace kestrune
