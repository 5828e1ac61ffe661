// SPDX-License-Identifier: Apache-2.0
#include "kestrune/MarkerMetrology/discs.h"

#include <Eigen/Cholesky>
#include <Eigen/Geometry>
#include <algorithm>
#include <cmath>
#include <optional>

#include "refinement/calibration_effect.h"
#include "refinement/disc_start.h"
#include "refinement/rig_check.h"

namespace kestrune {
namespace {

using geometry::SmoothEllipse;
using Vector3 = Eigen::Vector3d;
using Vector6 = Eigen::Matrix<double, 6, 1>;
using Matrix6 = Eigen::Matrix<double, 6, 6>;
using Matrix5 = Eigen::Matrix<double, 5, 5>;

constexpr int kMostDescents = 40;
constexpr double kLeastDamping = 1e-6, kMostDamping = 1e10, kDampingFactor = 10;
// A step that gains less than one share of what it promised went too far, one that gains more than the other has a
// model to be trusted. Where noise makes an ellipse rounder than any disc would be, undamped steps go to and fro.
constexpr double kPoorShare = 0.25, kGoodShare = 0.75, kPoorDamping = 1e-3;
// A step that promises less of chi-square than this moves no number by a ten-millionth of its sigma.
constexpr double kLeastGain = 1e-14;
// What rounding, or steps that were too many, may leave: a hundredth of a sigma; and a share of chi-square.
constexpr double kEnoughGain = 1e-4, kRoundingGain = 1e-9;
// A search that is farther behind a known end than a hundred times what its next step promises ends at another one.
constexpr double kHopelessShare = 0.01;
// A search that comes as near as this to an end that is known, in sigmas, would only find it again.
constexpr double kSameEnd = 0.1;
// The images of a disc lie on both ellipses to this share of their size; two markers that are not one do not.
constexpr double kLargestMiss = 0.5;

/// What an eye saw, and the inverse of the Cholesky factor of its covariance: residuals times it have unit sigmas.
struct Sight : DiscEye {
    Matrix5 whitening;
};

struct Fit {
    SpaceDisc disc;
    std::array<Vector3, 2> tangents;
    Matrix6 normal;                                          ///< normal matrix
    Vector6 gradient;                                        ///< of half of chi-square, downwards
    std::array<Eigen::Matrix<double, 5, 6>, 2> derivatives;  ///< of unit residuals
    std::array<ProjectedDisc, 2> images;
    double chiSquare;
};

std::array<Vector3, 2> tangentsOf(const Vector3& normal) {
    const Vector3 axis = std::abs(normal.x()) < 0.7 ? Vector3::UnitX() : Vector3::UnitY();
    const Vector3 first = (axis - normal * normal.dot(axis)).normalized();
    return {first, normal.cross(first)};
}

std::optional<std::array<Sight, 2>> sightsOf(const std::array<MarkerEstimate, 2>& eyes, const RigMatrices& rig) {
    std::array<Sight, 2> sights;
    for (std::size_t k = 0; k < 2; ++k) {
        Sight& sight = sights[k];
        sight.camera = geometry::Pinhole::of(rig.cameras[k].matrix);
        sight.turn.setIdentity();
        sight.shift.setZero();
        const MarkerEstimate& e = eyes[k];
        const auto ellipse = SmoothEllipse::of(e.centre, e.majorHalfAxis, e.minorHalfAxis, e.angle);
        if (!ellipse.isFinite() || !(ellipse.minorHalfAxis() > 0)) return std::nullopt;
        sight.ellipse << ellipse.x, ellipse.y, ellipse.s, ellipse.e1, ellipse.e2;
        Matrix5 covariance;
        for (int row = 0; row < 5; ++row)
            for (int column = 0; column < 5; ++column) covariance(row, column) = e.covariance(row, column);
        const Eigen::LLT<Matrix5> factor(covariance);
        if (!covariance.allFinite() || factor.info() != Eigen::Success) return std::nullopt;
        sight.whitening = factor.matrixL().solve(Matrix5::Identity());
        if (!sight.whitening.allFinite()) return std::nullopt;
    }
    for (int row = 0; row < 3; ++row) {
        for (int column = 0; column < 3; ++column) sights[1].turn(row, column) = rig.rotation.at<double>(row, column);
        sights[1].shift[row] = rig.translation.at<double>(row);
    }
    return sights;
}

/// Fills all but the disc. False where an eye cannot see it.
bool evaluate(const std::array<Sight, 2>& sights, Fit& fit) {
    fit.tangents = tangentsOf(fit.disc.normal);
    fit.normal.setZero();
    fit.gradient.setZero();
    fit.chiSquare = 0;
    for (std::size_t k = 0; k < 2; ++k) {
        const Sight& sight = sights[k];
        ProjectedDisc& image = fit.images[k];
        if (!projectDisc(sight.inOwnFrame(fit.disc), sight.camera, image)) return false;
        const Eigen::Matrix<double, 5, 3> byNormal = image.derivative.middleCols<3>(3).lazyProduct(sight.turn);
        Eigen::Matrix<double, 5, 6> derivative;
        derivative.leftCols<3>() = image.derivative.leftCols<3>().lazyProduct(sight.turn);
        // A turn about the first tangent moves the normal against the second one.
        derivative.col(3) = -(byNormal * fit.tangents[1]);
        derivative.col(4) = byNormal * fit.tangents[0];
        derivative.col(5) = image.derivative.col(6);
        fit.derivatives[k] = sight.whitening.lazyProduct(derivative);
        const EllipseNumbers residual = sight.whitening.lazyProduct(sight.ellipse - image.ellipse);
        fit.normal += fit.derivatives[k].transpose().lazyProduct(fit.derivatives[k]);
        fit.gradient += fit.derivatives[k].transpose().lazyProduct(residual);
        fit.chiSquare += residual.squaredNorm();
    }
    return std::isfinite(fit.chiSquare);
}

SpaceDisc moved(const Fit& fit, const Vector6& step) {
    const Vector3 normal = fit.disc.normal - step[3] * fit.tangents[1] + step[4] * fit.tangents[0];
    return {fit.disc.centre + step.head<3>(), normal.normalized(), fit.disc.radius + step[5]};
}

/// Whether two fits are one end but for what the last steps would bring.
bool isSameEnd(const Fit& known, const SpaceDisc& disc) {
    Vector6 apart;
    const Vector3 turned = disc.normal - known.disc.normal;
    apart << disc.centre - known.disc.centre, -turned.dot(known.tangents[1]), turned.dot(known.tangents[0]),
        disc.radius - known.disc.radius;
    return disc.normal.dot(known.disc.normal) > 0 && apart.dot(known.normal * apart) < kSameEnd * kSameEnd;
}

/// Levenberg-Marquardt from a start to the least chi-square near it, unless it is that of a fit that is known.
std::optional<Fit> descend(const std::array<Sight, 2>& sights, const SpaceDisc& start,
                           const std::optional<Fit>& known) {
    Fit fit, trial;
    fit.disc = start;
    if (!evaluate(sights, fit)) return std::nullopt;
    double damping = kLeastDamping, promised = 0;
    for (int step = 0; step < kMostDescents && damping < kMostDamping; ++step) {
        if (known && isSameEnd(*known, fit.disc)) return std::nullopt;
        Matrix6 damped = fit.normal;
        damped.diagonal() *= 1 + damping;
        const Eigen::LLT<Matrix6> solver(damped);
        const Vector6 move = solver.solve(fit.gradient);
        promised = move.dot(fit.gradient);
        if (promised <= kLeastGain) return fit;
        if (known && promised < kHopelessShare * (fit.chiSquare - known->chiSquare)) return std::nullopt;
        trial.disc = moved(fit, move);
        const bool isSeen = solver.info() == Eigen::Success && evaluate(sights, trial);
        const double gained = isSeen ? fit.chiSquare - trial.chiSquare : 0;
        if (!(gained > kPoorShare * promised)) damping = kDampingFactor * std::max(damping, kPoorDamping);
        if (gained > kGoodShare * promised) damping = std::max(damping / kDampingFactor, kLeastDamping);
        if (gained > 0) std::swap(fit, trial);
    }
    if (promised <= kEnoughGain + kRoundingGain * fit.chiSquare) return fit;
    return std::nullopt;
}

/// The best of all starts, the first of equals.
std::optional<Fit> bestFit(const std::array<Sight, 2>& sights) {
    const auto starts = discStarts({sights[0], sights[1]});
    if (!starts) return std::nullopt;
    std::optional<Fit> best;
    for (const SpaceDisc& start : *starts) {
        std::optional<Fit> fit = descend(sights, start, best);
        if (fit && (!best || fit->chiSquare < best->chiSquare)) best = std::move(fit);
    }
    return best;
}

/// Turns the normal towards the left eye. False unless the right eye sees the same side, and the disc's images lie on
/// what was seen.
bool isOneDisc(const std::array<Sight, 2>& sights, Fit& fit) {
    if (fit.disc.normal.dot(fit.disc.centre) > 0) {
        fit.disc.normal = -fit.disc.normal;
        if (!evaluate(sights, fit)) return false;
    }
    for (std::size_t k = 0; k < 2; ++k) {
        const SpaceDisc own = sights[k].inOwnFrame(fit.disc);
        if (!(own.normal.dot(own.centre) < 0)) return false;
        const EllipseNumbers off = sights[k].ellipse - fit.images[k].ellipse;
        const double miss = off.head<2>().norm() + std::abs(off[2]) + off.tail<2>().norm();
        if (!(miss < kLargestMiss * sights[k].ellipse[2])) return false;
    }
    return true;
}

cv::Vec3d vectorOf(const Vector3& v) {
    return {v.x(), v.y(), v.z()};
}

bool isUncertain(const RigUncertainty& u) {
    const auto any = [](const auto& list) { return std::ranges::any_of(list, [](double s) { return s != 0; }); };
    return any(u.cameras[0]) || any(u.cameras[1]) || any(u.distortions[0]) || any(u.distortions[1]) ||
           any(u.rotation) || any(u.translation);
}

}  // namespace

DiscEstimate measureDisc(const std::array<MarkerEstimate, 2>& eyes, const RigMatrices& rig) {
    requireRig(rig);
    DiscEstimate result;
    const auto sights = sightsOf(eyes, rig);
    std::optional<Fit> fit = sights ? bestFit(*sights) : std::nullopt;
    if (!fit || !isOneDisc(*sights, *fit)) return result;
    const Eigen::LLT<Matrix6> solver(fit->normal);
    const Matrix6 covariance = solver.solve(Matrix6::Identity());
    if (solver.info() != Eigen::Success || !covariance.allFinite()) return result;

    result.found = true;
    result.centre = vectorOf(fit->disc.centre);
    result.normal = vectorOf(fit->disc.normal);
    result.radius = fit->disc.radius;
    result.tangents = {vectorOf(fit->tangents[0]), vectorOf(fit->tangents[1])};
    result.chiSquare = fit->chiSquare;
    for (int row = 0; row < 6; ++row)
        for (int column = 0; column < 6; ++column)
            result.covariance(row, column) = 0.5 * (covariance(row, column) + covariance(column, row));
    if (!isUncertain(rig.uncertainty)) return result;
    std::array<CentreGain, 2> gains;
    for (std::size_t k = 0; k < 2; ++k)
        gains[k] = (covariance * fit->derivatives[k].transpose() * (*sights)[k].whitening).topRows<3>();
    const Eigen::Matrix3d ofRig =
        calibrationCovariance(rig, {(*sights)[0], (*sights)[1]}, fit->disc, gains, fit->images[1]);
    for (int row = 0; row < 3; ++row)
        for (int column = 0; column < 3; ++column) result.calibrationCovariance(row, column) = ofRig(row, column);
    return result;
}

cv::Matx33d DiscEstimate::normalCovariance() const {
    const cv::Vec3d byFirst = -tangents[1];
    const cv::Vec3d& bySecond = tangents[0];
    const cv::Matx33d cross = byFirst * bySecond.t();
    return covariance(3, 3) * (byFirst * byFirst.t()) + covariance(4, 4) * (bySecond * bySecond.t()) +
           covariance(3, 4) * (cross + cross.t());
}

double DiscEstimate::radiusSigma() const {
    return std::sqrt(covariance(5, 5));
}

}  // namespace kestrune
