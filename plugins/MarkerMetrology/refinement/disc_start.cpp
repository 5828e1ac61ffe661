// SPDX-License-Identifier: Apache-2.0
#include "refinement/disc_start.h"

#include <Eigen/Eigenvalues>
#include <Eigen/Geometry>
#include <algorithm>
#include <cmath>

namespace kestrune {
namespace {

// Rays within this of parallel, as the square of a sine, meet nowhere that a rig could measure.
constexpr double kLeastAngle = 1e-12;

/// Where the rays through both centres come nearest to each other.
std::optional<Eigen::Vector3d> meetingPoint(const std::array<DiscEye, 2>& eyes) {
    std::array<Eigen::Vector3d, 2> from, along;
    for (std::size_t k = 0; k < 2; ++k) {
        const cv::Point2d ray = eyes[k].camera.normalised({eyes[k].ellipse[0], eyes[k].ellipse[1]});
        from[k] = -(eyes[k].turn.transpose() * eyes[k].shift);
        along[k] = eyes[k].turn.transpose() * Eigen::Vector3d(ray.x, ray.y, 1).normalized();
    }
    const Eigen::Vector3d base = from[1] - from[0];
    const double c = along[0].dot(along[1]), sine2 = along[0].cross(along[1]).squaredNorm();
    const double left = along[0].dot(base), right = along[1].dot(base);
    const double u = (left - c * right) / sine2, v = (c * left - right) / sine2;
    if (!(sine2 > kLeastAngle) || !(u > 0) || !(v > 0)) return std::nullopt;
    return 0.5 * (from[0] + u * along[0] + from[1] + v * along[1]);
}

/// Both normals of the circle that an eye may have seen, in its frame and towards it. The cone of the rays to the rim
/// has a round section across each of them.
std::array<Eigen::Vector3d, 2> circleNormals(const DiscEye& eye) {
    const auto [p, q, t] = momentsOf(eye.ellipse);
    const double fx = eye.camera.fx, fy = eye.camera.fy;
    Eigen::Matrix2d quadratic;
    quadratic << t * fx * fx, -q * fx * fy, -q * fx * fy, p * fy * fy;
    quadratic /= p * t - q * q;
    const cv::Point2d ray = eye.camera.normalised({eye.ellipse[0], eye.ellipse[1]});
    const Eigen::Vector2d centre(ray.x, ray.y), linear = -(quadratic * centre);
    Eigen::Matrix3d cone;
    cone << quadratic, linear, linear.transpose(), -linear.dot(centre) - 1;

    Eigen::SelfAdjointEigenSolver<Eigen::Matrix3d> solver;
    solver.computeDirect(cone);  // ascending: one below 0, two above
    const Eigen::Vector3d& e = solver.eigenvalues();
    const double along = std::sqrt(std::max(0.0, (e[2] - e[1]) / (e[2] - e[0])));
    const double across = std::sqrt(std::max(0.0, (e[1] - e[0]) / (e[2] - e[0])));
    std::array<Eigen::Vector3d, 2> normals;
    for (std::size_t k = 0; k < 2; ++k) {
        const Eigen::Vector3d n =
            across * solver.eigenvectors().col(0) + (k == 0 ? along : -along) * solver.eigenvectors().col(2);
        const bool away = n.x() * ray.x + n.y() * ray.y + n.z() > 0;
        normals[k] = (away ? -n : n).normalized();
    }
    return normals;
}

}  // namespace

std::optional<std::array<SpaceDisc, 4>> discStarts(const std::array<DiscEye, 2>& eyes) {
    const std::optional<Eigen::Vector3d> centre = meetingPoint(eyes);
    if (!centre) return std::nullopt;
    std::array<SpaceDisc, 4> starts;
    double radius = 0;  // of the longer axes, which a tilt does not shorten
    for (const DiscEye& eye : eyes) {
        const double longer = eye.ellipse[2] + std::hypot(eye.ellipse[3], eye.ellipse[4]);
        radius += 0.5 * longer * (eye.turn * *centre + eye.shift).z() / std::sqrt(eye.camera.fx * eye.camera.fy);
    }
    for (std::size_t eye = 0; eye < 2; ++eye) {
        const std::array<Eigen::Vector3d, 2> normals = circleNormals(eyes[eye]);
        for (std::size_t k = 0; k < 2; ++k)
            starts[2 * eye + k] = {*centre, eyes[eye].turn.transpose() * normals[k], radius};
    }
    return starts;
}

}  // namespace kestrune
