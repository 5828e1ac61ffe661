// SPDX-License-Identifier: Apache-2.0
#include "matching/sightline.h"

#include <Eigen/Cholesky>
#include <Eigen/Eigenvalues>
#include <Eigen/Geometry>
#include <algorithm>
#include <cmath>

#include "kestrune_geometry/smooth_ellipse.h"
#include "refinement/disc_projection.h"

namespace kestrune::matching {
namespace {

using Matrix2 = Eigen::Matrix2d;
using Matrix3 = Eigen::Matrix3d;
using Vector3 = Eigen::Vector3d;
using Matrix5 = Eigen::Matrix<double, 5, 5>;

// An axis along the baseline has no epipolar plane.
constexpr double kLeastSine = 1e-3;

Vector3 rayOf(const geometry::Pinhole& camera, double x, double y) {
    return {(x - camera.cx) / camera.fx, (y - camera.cy) / camera.fy, 1};
}

/// Of the rays to the ellipse's rim, in the frame of the camera: below 0 inside.
Matrix3 coneOf(const EllipseNumbers& ellipse, const geometry::Pinhole& camera) {
    const auto [p, q, t] = momentsOf(ellipse);
    Matrix2 quadratic;
    quadratic << t * camera.fx * camera.fx, -q * camera.fx * camera.fy, -q * camera.fx * camera.fy,
        p * camera.fy * camera.fy;
    quadratic /= p * t - q * q;
    const Eigen::Vector2d centre = rayOf(camera, ellipse[0], ellipse[1]).head<2>(), linear = -(quadratic * centre);
    Matrix3 cone;
    cone << quadratic, linear, linear.transpose(), -linear.dot(centre) - 1;
    return cone;
}

/// How a small step on the image, px, moves a ray across its direction, radians, in the frame of the sightline.
Matrix2 pixelStep(const EllipseNumbers& ellipse, const EpipolarFrame& frame, std::size_t eye, const Sightline& line) {
    const geometry::Pinhole& camera = frame.cameras[eye];
    const double length = rayOf(camera, ellipse[0], ellipse[1]).norm();
    const Vector3 byX = frame.toFrame[eye].col(0) / (camera.fx * length);
    const Vector3 byY = frame.toFrame[eye].col(1) / (camera.fy * length);
    Matrix2 step;
    step << line.side.dot(byX), line.side.dot(byY), line.up.dot(byX), line.up.dot(byY);
    return step;
}

/// Covariances of place and shape, by a view of the ellipse that is turned and scaled as the rays at its centre are.
bool setCovariance(const EllipseNumbers& ellipse, const Matrix5& covariance, const Matrix2& step, Sightline& line) {
    const Matrix2 place = step * covariance.topLeftCorner<2, 2>() * step.transpose();
    line.sigmaAlpha = std::sqrt(place(0, 0));
    line.sigmaPhi = std::sqrt(place(1, 1)) / std::sin(line.alpha);
    line.pixel = std::sqrt(std::abs(step.determinant()));

    const double turn = std::atan2(step(1, 0) - step(0, 1), step(0, 0) + step(1, 1));
    const Complex turned = std::polar(1.0, 2 * turn) / ellipse[2];
    // w = e / s turned; log rho = log s + log(1 + |w|).
    Matrix3 by = Matrix3::Zero();
    by.row(1) << -line.w.real() / ellipse[2], turned.real(), -turned.imag();
    by.row(2) << -line.w.imag() / ellipse[2], turned.imag(), turned.real();
    const double size = std::abs(line.w);
    const Complex direction = size > 0 ? line.w / size : Complex(0);
    by.row(0) = (direction.real() * by.row(1) + direction.imag() * by.row(2)) / (1 + size);
    by(0, 0) += 1 / ellipse[2];
    const Matrix3 shape = by * covariance.bottomRightCorner<3, 3>() * by.transpose();
    const Eigen::LLT<Matrix3> solver(shape);
    if (solver.info() != Eigen::Success) return false;
    line.information = solver.solve(Matrix3::Identity());
    line.logDeterminant = 2 * solver.matrixLLT().diagonal().array().log().sum();
    line.sigmaRho = std::sqrt(shape(0, 0));
    line.sigmaW = std::sqrt(0.5 * (shape(1, 1) + shape(2, 2)));
    return line.information.allFinite() && place.allFinite() && line.sigmaPhi > 0 && line.sigmaAlpha > 0;
}

}  // namespace

EpipolarFrame EpipolarFrame::of(const RigMatrices& rig, const cv::Matx33d& rotation, const cv::Vec3d& translation) {
    EpipolarFrame frame;
    Matrix3 turn;
    Vector3 shift;
    for (int row = 0; row < 3; ++row) {
        for (int column = 0; column < 3; ++column) turn(row, column) = rotation(row, column);
        shift[row] = translation[row];
    }
    const Vector3 baseline = -(turn.transpose() * shift), x = baseline.normalized();
    const Vector3 forward = Vector3::UnitZ() + turn.row(2).transpose();  // both optical axes
    // Where the eyes look along the baseline any turn about it will do.
    Vector3 y = forward.cross(x);
    if (!(y.norm() > kLeastSine)) y = x.unitOrthogonal();
    y.normalize();
    frame.fromLeft.row(0) = x;
    frame.fromLeft.row(1) = y;
    frame.fromLeft.row(2) = x.cross(y);
    frame.toFrame = {frame.fromLeft, frame.fromLeft * turn.transpose()};
    frame.baseline = baseline.norm();
    for (std::size_t eye = 0; eye < 2; ++eye) frame.cameras[eye] = geometry::Pinhole::of(rig.cameras[eye].matrix);
    return frame;
}

std::optional<Sightline> sightlineOf(const MarkerEstimate& estimate, const EpipolarFrame& frame, std::size_t eye) {
    const auto e =
        geometry::SmoothEllipse::of(estimate.centre, estimate.majorHalfAxis, estimate.minorHalfAxis, estimate.angle);
    if (!e.isFinite() || !(e.minorHalfAxis() > 0)) return std::nullopt;
    EllipseNumbers ellipse;
    ellipse << e.x, e.y, e.s, e.e1, e.e2;
    Matrix5 covariance;
    for (int row = 0; row < 5; ++row)
        for (int column = 0; column < 5; ++column) covariance(row, column) = estimate.covariance(row, column);
    if (!covariance.allFinite() || Eigen::LLT<Matrix5>(covariance).info() != Eigen::Success) return std::nullopt;

    Eigen::SelfAdjointEigenSolver<Matrix3> solver;
    solver.computeDirect(coneOf(ellipse, frame.cameras[eye]));  // ascending: one below 0, two above
    const Vector3& v = solver.eigenvalues();
    if (!(v[0] < 0 && v[1] > 0)) return std::nullopt;
    Sightline line;
    Vector3 axis = solver.eigenvectors().col(0);
    line.axis = frame.toFrame[eye] * (axis.z() < 0 ? Vector3(-axis) : axis);
    const double across = std::hypot(line.axis.y(), line.axis.z());
    if (!(across > kLeastSine && line.axis.z() > kLeastSine)) return std::nullopt;
    line.phi = std::atan2(line.axis.y(), line.axis.z());
    line.alpha = std::atan2(across, line.axis.x());
    line.up = Vector3(0, line.axis.z(), -line.axis.y()) / across;
    line.side = line.up.cross(line.axis);
    line.forward = line.axis.z();
    line.logSine = std::log(across);
    line.cotangent = line.axis.x() / across;

    const Vector3 steep = frame.toFrame[eye] * solver.eigenvectors().col(2);
    const double along2 = std::max(0.0, (v[2] - v[1]) / (v[2] - v[0])),
                 front = std::sqrt((v[1] - v[0]) / (v[2] - v[0]));
    const Complex direction(steep.dot(line.side), steep.dot(line.up));
    line.q = std::sqrt(along2) / (1 + front) * (direction / std::abs(direction));
    line.w = -line.q * line.q;
    // Centre of the circle of radius 1 on the cone: off the axis by v1 / v3 and along it by v2 / v1, times the sines.
    const double scale = v[1] / std::sqrt(-v[0] * v[2]);
    const double off = scale * (v[0] / v[1]) * std::sqrt(along2), ahead = scale * (v[2] / v[1]) * front;
    line.logRho = -std::log(std::hypot(off, ahead));
    line.shift = -v[0] / v[2];
    line.contrast = estimate.inside - estimate.outside;
    if (!setCovariance(ellipse, covariance, pixelStep(ellipse, frame, eye, line), line)) return std::nullopt;
    return line;
}

}  // namespace kestrune::matching
