// SPDX-License-Identifier: Apache-2.0
#include "matching/object_pose.h"

#include <Eigen/Cholesky>
#include <Eigen/Eigenvalues>
#include <Eigen/Geometry>
#include <Eigen/LU>
#include <algorithm>
#include <numbers>
#include <tuple>

#include "matching/spread.h"

namespace kestrune::matching {
namespace {

using Vector3 = Eigen::Vector3d;
using Matrix3 = Eigen::Matrix3d;
using Vector6 = Eigen::Matrix<double, 6, 1>;
using Jacobian = Eigen::Matrix<double, 3, 6>;

// Chi-squares of 3 degrees of freedom up to which a point is the marker's: a pose of three points is rough, and their
// standard deviations may be half of the true ones.
constexpr std::array<double, 8> kGates = {100, 64, 36, 25, 25, 25, 25, 25};
constexpr std::size_t kFirstFinalGate = 3;
// Degrees of freedom of the weights: a share of the points is off.
constexpr double kTails = 10;
// Bound of what can be learnt from the median of chi-squares.
constexpr double kMostSigmaScale = 9;
constexpr std::size_t kLeastForScale = 8;
// No single marker speaks louder than this when poses are compared: points may lie at its place by other causes.
constexpr double kLoudest = 12;
constexpr double kLargestTurn = 0.1;  // standard deviation of a pose that is one, radians
// A pose without the point at hand is known at least that well, as an information per square of the unit or radian.
constexpr double kPoseRidge = 1e-12;

Jacobian derivative(const Vector3& arm) {
    Jacobian j;
    j << 0, arm.z(), -arm.y(), 1, 0, 0,  //
        -arm.z(), 0, arm.x(), 0, 1, 0,   //
        arm.y(), -arm.x(), 0, 0, 0, 1;
    return j;
}

}  // namespace

RigidPose poseOfTriangle(const std::array<Vector3, 3>& from, const std::array<Vector3, 3>& to) {
    const auto frame = [](const std::array<Vector3, 3>& t) {
        Matrix3 axes;
        axes.col(0) = (t[1] - t[0]).normalized();
        axes.col(2) = axes.col(0).cross(t[2] - t[0]).normalized();
        axes.col(1) = axes.col(2).cross(axes.col(0));
        return axes;
    };
    RigidPose pose;
    pose.rotation = frame(to) * frame(from).transpose();
    pose.shift = (to[0] + to[1] + to[2] - pose.rotation * (from[0] + from[1] + from[2])) / 3;
    return pose;
}

Matrix3 PoseFitter::covariance(const PoseFit& fit, int marker, int point) const {
    return fit.scale *
           (points_[point].its.covariance + object_[static_cast<std::size_t>(marker)].variance * Matrix3::Identity());
}

double PoseFitter::logRatio(const Vector3& off, const Matrix3& covariance, double volume) const {
    const double chiSquare = off.dot(covariance.inverse() * off);
    return std::log(volume / points_.expected()) - 0.5 * chiSquare - 1.5 * std::log(2 * std::numbers::pi) -
           0.5 * std::log(covariance.determinant());
}

/// One to one, the most probable first.
void PoseFitter::match(PoseFit& fit, double gate) const {
    std::vector<PoseFit::Match> edges;
    for (int m = 0; m < static_cast<int>(object_.size()); ++m) {
        const Vector3 place = fit.pose(marker(m).place);
        points_.forNear(place, [&](int p) {
            const Vector3 off = points_[p].its.place - place;
            if (off.dot(points_[p].roughWeight * off) > 4 * gate * fit.scale) return;
            const Matrix3 spread = covariance(fit, m, p);
            if (off.dot(spread.inverse() * off) > gate) return;
            const double worth = logRatio(off, spread, points_.rightVolume()) + std::log(points_[p].its.probability);
            edges.push_back({m, p, worth, std::min(points_.radiusEvidence(points_[p], marker(m)), 0.0)});
        });
    }
    std::sort(edges.begin(), edges.end(), [](const auto& a, const auto& b) {
        const double of = a.worth + a.radius, ofOther = b.worth + b.radius;
        return std::tie(ofOther, a.marker, a.point) < std::tie(of, b.marker, b.point);
    });
    std::vector<char> takenMarker(object_.size());
    std::array<std::vector<char>, 2> takenLine;
    for (std::size_t eye = 0; eye < 2; ++eye) takenLine[eye].resize(static_cast<std::size_t>(points_.lines(eye)));
    fit.matches.clear();
    for (const PoseFit::Match& edge : edges) {
        const SpacePoint& p = points_[edge.point].its;
        char& m = takenMarker[static_cast<std::size_t>(edge.marker)];
        char& l = takenLine[0][static_cast<std::size_t>(p.left)];
        char& r = takenLine[1][static_cast<std::size_t>(p.right)];
        if (m || l || r) continue;
        m = l = r = 1;
        fit.matches.push_back(edge);
    }
}

/// One of Gauss and Newton, with weights that fall off.
void PoseFitter::step(PoseFit& fit) const {
    fit.pivot.setZero();
    for (const auto& match : fit.matches) fit.pivot += points_[match.point].its.place;
    fit.pivot /= static_cast<double>(fit.matches.size());
    Vector6 right = Vector6::Zero();
    fit.information.setZero();
    for (const auto& match : fit.matches) {
        const Vector3 place = fit.pose(marker(match.marker).place), off = points_[match.point].its.place - place;
        const Matrix3 inverse = covariance(fit, match.marker, match.point).inverse();
        const double weight = (kTails + 3) / (kTails + off.dot(inverse * off));
        const Jacobian j = derivative(place - fit.pivot);
        const Eigen::Matrix<double, 6, 3> weighted = weight * j.transpose() * inverse;
        right += weighted * off;
        fit.information += weighted * j;
    }
    const Vector6 by = fit.information.ldlt().solve(right);
    const Vector3 turn = by.head<3>();
    const double angle = turn.norm();
    if (!by.allFinite() || angle > 1) return;
    const Matrix3 rotation =
        angle > 0 ? Eigen::AngleAxisd(angle, turn / angle).toRotationMatrix() : Matrix3(Matrix3::Identity());
    fit.pose.shift = rotation * (fit.pose.shift - fit.pivot) + fit.pivot + by.tail<3>();
    fit.pose.rotation = rotation * fit.pose.rotation;
}

/// How much larger the variances are than told. They are never made smaller: that would make evidence of luck.
void PoseFitter::measureScale(PoseFit& fit) const {
    if (fit.matches.size() < kLeastForScale) return;
    std::vector<double> chiSquares;
    for (const auto& match : fit.matches) {
        const Vector3 off = points_[match.point].its.place - fit.pose(marker(match.marker).place);
        chiSquares.push_back(off.dot(covariance(fit, match.marker, match.point).inverse() * off));
    }
    const auto middle = chiSquares.begin() + static_cast<std::ptrdiff_t>(chiSquares.size() / 2);
    std::nth_element(chiSquares.begin(), middle, chiSquares.end());
    const auto count = static_cast<double>(chiSquares.size());
    fit.scale = std::clamp(fit.scale * *middle / kMedianOfChi3 * count / (count - 2), 1.0, kMostSigmaScale);
}

/// The share of known markers that are seen is the one that explains best what is seen.
void PoseFitter::weigh(PoseFit& fit) const {
    const auto seen = static_cast<double>(fit.matches.size()), count = static_cast<double>(object_.size());
    const double share = (seen + 1) / (count + 2);
    fit.logOdds = fit.explained = (count - seen) * std::log(1 - share);
    for (const auto& match : fit.matches) {
        fit.logOdds += match.worth + match.radius + std::log(share);
        fit.explained += std::min(match.worth + std::log(share), kLoudest) + match.radius;
    }
    const Eigen::LLT<PoseFit::Matrix6> factor(fit.information);
    fit.determined = fit.matches.size() >= 3 && factor.info() == Eigen::Success;
    if (!fit.determined) return;
    // Poses as good as this one, as a share of all: any rotation, any place in the box.
    const double logDeterminant = 2 * factor.matrixLLT().diagonal().array().log().sum();
    fit.logOdds += 3 * std::log(2 * std::numbers::pi) - 0.5 * logDeterminant -
                   std::log(8 * std::numbers::pi * std::numbers::pi * points_.rightVolume());
    const PoseFit::Matrix6 spread = factor.solve(PoseFit::Matrix6::Identity());
    const Eigen::SelfAdjointEigenSolver<Matrix3> turns(spread.topLeftCorner<3, 3>(), Eigen::EigenvaluesOnly);
    fit.determined = turns.eigenvalues()[2] < kLargestTurn * kLargestTurn;
}

PoseFit PoseFitter::fit(const RigidPose& start) const {
    PoseFit fit;
    fit.pose = start;
    std::vector<std::pair<int, int>> before, now;
    for (std::size_t round = 0; round < kGates.size(); ++round) {
        match(fit, kGates[round]);
        if (fit.matches.size() < 3) return fit;
        step(fit);
        if (round < kFirstFinalGate) continue;
        measureScale(fit);
        now.clear();
        for (const auto& match : fit.matches) now.push_back({match.marker, match.point});
        std::sort(now.begin(), now.end());
        if (now == before) break;
        before.swap(now);
    }
    match(fit, kGates.back());
    if (fit.matches.size() < 3) return fit;
    step(fit);
    weigh(fit);
    return fit;
}

double PoseFitter::ratio(const PoseFit& fit, int m, int p, bool own) const {
    const Vector3 place = fit.pose(marker(m).place);
    const Matrix3 spread = covariance(fit, m, p), inverse = spread.inverse();
    const Jacobian j = derivative(place - fit.pivot);
    Vector3 off = points_[p].its.place - place;
    PoseFit::Matrix6 information = fit.information;
    Vector6 moved = Vector6::Zero();
    if (own) {
        const Eigen::Matrix<double, 6, 3> weighted =
            (kTails + 3) / (kTails + off.dot(inverse * off)) * j.transpose() * inverse;
        information -= weighted * j;
        moved = weighted * off;
    }
    information.diagonal() += kPoseRidge * fit.information.diagonal();
    const Eigen::LLT<PoseFit::Matrix6> factor(information);
    if (factor.info() != Eigen::Success) return 0;
    off += j * factor.solve(moved);
    return std::exp(logRatio(off, spread + j * factor.solve(j.transpose()), points_.volume()) +
                    points_.radiusEvidence(points_[p], marker(m)));
}

}  // namespace kestrune::matching
