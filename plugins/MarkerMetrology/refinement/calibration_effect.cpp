// SPDX-License-Identifier: Apache-2.0
#include "refinement/calibration_effect.h"

#include <Eigen/Geometry>
#include <cmath>
#include <opencv2/calib3d.hpp>

#include "refinement/lens_model.h"

namespace kestrune {
namespace {

/// How s, e1 and e2 change if the ellipse shrinks by a share dx of its columns and dy of its rows.
Eigen::Vector3d shrunkBy(const EllipseNumbers& ellipse, double dx, double dy) {
    const auto [p, q, t] = momentsOf(ellipse);
    const double s = ellipse[2], area = std::sqrt(p * t - q * q);
    const double dp = -2 * p * dx, dq = -q * (dx + dy), dt = -2 * t * dy;
    const double ds = 0.125 * (dp + dt - 2 * area * (dx + dy)) / s;
    return {ds, 0.25 * (dp - dt) / s - ellipse[3] * ds / s, 0.5 * dq / s - ellipse[4] * ds / s};
}

/// Adds what focal lengths, principal point and lens of an eye move. The pixel of the image stays; the ray that it
/// stands for changes, and with it the pixel without distortion.
void addCamera(const DiscEye& eye, const Camera& camera, const std::array<double, 4>& sigmas,
               const std::array<double, 5>& lensSigmas, const CentreGain& gain, Eigen::Matrix3d& sum) {
    const double fx = eye.camera.fx, fy = eye.camera.fy;
    const cv::Point2d ray = eye.camera.normalised({eye.ellipse[0], eye.ellipse[1]});
    const LensPoint seen = LensModel(camera).distorted(ray.x, ray.y);
    const auto add = [&](double sigma, double x, double y, const Eigen::Vector3d& shape) {
        // (x, y) in the image, in units of the focal lengths, before the lens is undone.
        EllipseNumbers moved;
        moved << fx * (seen.yy * x - seen.xy * y) / seen.determinant(),
            fy * (seen.xx * y - seen.yx * x) / seen.determinant(), shape;
        const Eigen::Vector3d effect = sigma * (gain * moved);
        sum += effect * effect.transpose();
    };
    add(sigmas[0], -seen.x / fx, 0, shrunkBy(eye.ellipse, 1 / fx, 0));
    add(sigmas[1], 0, -seen.y / fy, shrunkBy(eye.ellipse, 0, 1 / fy));
    add(sigmas[2], -1 / fx, 0, Eigen::Vector3d::Zero());
    add(sigmas[3], 0, -1 / fy, Eigen::Vector3d::Zero());

    const double x = ray.x, y = ray.y, r2 = x * x + y * y;
    const std::array<cv::Point2d, 5> byLens = {{{x * r2, y * r2},
                                                {x * r2 * r2, y * r2 * r2},
                                                {2 * x * y, r2 + 2 * y * y},
                                                {r2 + 2 * x * x, 2 * x * y},
                                                {x * r2 * r2 * r2, y * r2 * r2 * r2}}};
    for (std::size_t k = 0; k < byLens.size(); ++k)
        add(lensSigmas[k], -byLens[k].x, -byLens[k].y, Eigen::Vector3d::Zero());
}

/// How a small turn about the axes of the right camera follows the rotation vector.
Eigen::Matrix3d turnByVector(const cv::Mat& rotation) {
    cv::Vec3d vector;
    cv::Rodrigues(rotation, vector);
    const double angle = cv::norm(vector);
    const cv::Matx33d cross = geometry::crossMatrix(vector);
    const bool tiny = angle < 1e-4;
    const double b = tiny ? 0.5 : (1 - std::cos(angle)) / (angle * angle);
    const double c = tiny ? 1.0 / 6 : (angle - std::sin(angle)) / (angle * angle * angle);
    const cv::Matx33d result = cv::Matx33d::eye() + b * cross + c * cross * cross;
    return Eigen::Map<const Eigen::Matrix<double, 3, 3, Eigen::RowMajor>>(result.val);
}

}  // namespace

Eigen::Matrix3d calibrationCovariance(const RigMatrices& rig, const std::array<DiscEye, 2>& eyes, const SpaceDisc& disc,
                                      const std::array<CentreGain, 2>& gains, const ProjectedDisc& right) {
    Eigen::Matrix3d sum = Eigen::Matrix3d::Zero();
    const RigUncertainty& u = rig.uncertainty;
    for (std::size_t eye = 0; eye < 2; ++eye)
        addCamera(eyes[eye], rig.cameras[eye], u.cameras[eye], u.distortions[eye], gains[eye], sum);

    const auto add = [&](double sigma, const Eigen::Vector3d& centre, const Eigen::Vector3d& normal) {
        const EllipseNumbers predicted =
            right.derivative.leftCols<3>() * centre + right.derivative.middleCols<3>(3) * normal;
        const Eigen::Vector3d effect = sigma * (gains[1] * predicted);
        sum += effect * effect.transpose();
    };
    for (int axis = 0; axis < 3; ++axis)
        add(u.translation[static_cast<std::size_t>(axis)], Eigen::Vector3d::Unit(axis), Eigen::Vector3d::Zero());
    if (u.rotation[0] == 0 && u.rotation[1] == 0 && u.rotation[2] == 0) return sum;
    const Eigen::Matrix3d turns = turnByVector(rig.rotation);
    const Eigen::Vector3d centre = eyes[1].turn * disc.centre, normal = eyes[1].turn * disc.normal;
    for (int axis = 0; axis < 3; ++axis)
        add(u.rotation[static_cast<std::size_t>(axis)], turns.col(axis).cross(centre), turns.col(axis).cross(normal));
    return sum;
}

}  // namespace kestrune
