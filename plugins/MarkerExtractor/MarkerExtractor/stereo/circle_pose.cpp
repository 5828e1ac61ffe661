// SPDX-License-Identifier: Apache-2.0
#include "MarkerExtractor/stereo/circle_pose.h"

#include <Eigen/Eigenvalues>
#include <Eigen/LU>
#include <algorithm>
#include <cmath>
#include <limits>
#include <stdexcept>

#include "MarkerExtractor/stereo/space_points.h"

namespace kestrune {

namespace {

constexpr const char* kNoDecomposition = "Eigen decomposition failed.";

/// Eigenvalues in ascending order with their unit eigenvectors.
struct EigenSystem {
    std::array<double, 3> value;
    std::array<Eigen::Vector3d, 3> vector;
};

EigenSystem decompose(const Eigen::Matrix3d& matrix) {
    const Eigen::SelfAdjointEigenSolver<Eigen::Matrix3d> solver(matrix, Eigen::ComputeEigenvectors);
    if (solver.info() != Eigen::Success) throw std::runtime_error(kNoDecomposition);
    std::array<int, 3> order{0, 1, 2};
    std::stable_sort(order.begin(), order.end(),
                     [&solver](int a, int b) { return solver.eigenvalues()[a] < solver.eigenvalues()[b]; });
    EigenSystem result;
    for (std::size_t k = 0; k < 3; ++k) {
        result.value[k] = solver.eigenvalues()[order[k]];
        result.vector[k] = solver.eigenvectors().col(order[k]);
    }
    return result;
}

/// Unit normal that looks back to the camera.
Eigen::Vector3d facingNormal(const Eigen::Vector3d& inPlane, const Eigen::Vector3d& axis,
                             const Eigen::Vector3d& point) {
    Eigen::Vector3d normal = inPlane.cross(axis);
    if (normal.squaredNorm() > 0) normal /= normal.norm();
    if (normal.dot(point) > 0) normal = -normal;
    return normal;
}

}  // namespace

std::optional<CirclePose> circlePose(const Eigen::Matrix3d& camera, const cv::Vec3d& point,
                                     const geometry::Conic& conic) {
    const Eigen::Matrix3d matrix(geometry::matrixOf(conic).val);  // by columns or rows: it is symmetric
    const Eigen::Matrix3d half = camera.transpose() * matrix;
    const Eigen::Matrix3d whole = half * camera;
    if (!whole.allFinite()) throw std::runtime_error(kNoDecomposition);
    // A point, a line twice, two lines, or nothing at all is no marker, and no reason to give up the others. Rounding
    // may hide it from one determinant, and the inverse has one of its own.
    const bool isDegenerate = matrix.determinant() == 0 || half.determinant() == 0 || whole.determinant() == 0;
    const Eigen::Matrix3d cone = whole.inverse();
    if (isDegenerate || !cone.allFinite()) return std::nullopt;
    const EigenSystem system = decompose(cone);
    const auto& [e0, e1, e2] = system.value;
    const auto& [u0, u1, u2] = system.vector;

    const Eigen::Vector3d p = eigenOf(point);
    CirclePose pose;
    pose.radius = std::sqrt(e2) * p.norm() / std::sqrt(-e0);
    const double s = std::sqrt((e2 - e1) / e1);
    const Eigen::Matrix3d toCentre = half.inverse();
    for (std::size_t side = 0; side < 2; ++side) {
        const Eigen::Vector3d normal = facingNormal(u1 + (side == 0 ? s : -s) * u0, u2, p);
        const Eigen::Vector3d h = toCentre * normal;
        pose.normals[side] = {normal.x(), normal.y(), normal.z()};
        pose.centres[side] = {static_cast<float>(h.x() / h.z()), static_cast<float>(h.y() / h.z())};
    }
    return pose;
}

CircleSolution solveCirclePose(const Eigen::Matrix3d& camera, const Point3_<double>& point, const Corner& corner,
                               std::vector<cv::Point2f>& centres) {
    centres.clear();
    const std::optional<CirclePose> pose = circlePose(camera, vectorOf(point), corner.conic);
    if (!pose) return {std::numeric_limits<double>::quiet_NaN(), {}};
    centres.assign(pose->centres.begin(), pose->centres.end());
    return {pose->radius, {pose->normals[0], pose->normals[1]}};
}

}  // namespace kestrune
