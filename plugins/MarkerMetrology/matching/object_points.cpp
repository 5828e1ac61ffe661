// SPDX-License-Identifier: Apache-2.0
#include "matching/object_points.h"

#include <Eigen/Cholesky>
#include <Eigen/Eigenvalues>
#include <Eigen/LU>
#include <algorithm>
#include <numbers>
#include <random>
#include <tuple>

namespace kestrune::matching {
namespace {

// Where an exposure is wrong as a whole it believes in wrong points: the right ones keep a chance.
constexpr double kLeastProbability = 1e-3;
// A few candidates far away would make the box of all others large, and chance rare.
constexpr double kTrimmed = 0.05;
// The box is at least so many standard deviations wide: a flat scene tells nothing across.
constexpr double kLeastWidth = 10;
// Radii of drawings, relative. A share of the known radii is wrong.
constexpr double kRadiusTolerance = 0.01, kWrongRadii = 0.01, kRadiusMargin = 0.05;
constexpr double kFarthestPoint = 1e50;  // beyond it, volumes are no numbers
constexpr int kMostAlongAxis = 64;       // of the grid along an axis
constexpr int kMostCellReach = 2;        // cells in which a point is looked for, each way

bool usable(const SpacePoint& p) {
    if (!(p.place.cwiseAbs().maxCoeff() < kFarthestPoint) || !(p.covariance.cwiseAbs().maxCoeff() < kFarthestPoint))
        return false;
    if (!p.place.allFinite() || !p.covariance.allFinite() || !(p.probability >= 0)) return false;
    const Eigen::LLT<Eigen::Matrix3d> factor(p.covariance);
    return factor.info() == Eigen::Success && p.covariance.determinant() > std::numeric_limits<double>::min();
}

auto placeKey(const Eigen::Vector3d& place) {
    return std::make_tuple(place.x(), place.y(), place.z());
}

double quantile(std::vector<double>& values, double share) {
    const auto at = values.begin() + static_cast<std::ptrdiff_t>(share * static_cast<double>(values.size() - 1));
    std::nth_element(values.begin(), at, values.end());
    return *at;
}

bool saysRadius(const SpacePoint& p) {
    return std::isfinite(p.logRadius) && std::isfinite(p.sigmaRadius) && p.sigmaRadius > 0;
}

}  // namespace

std::vector<ObjectMarker> orderedMarkers(const std::vector<KnownMarker>& object) {
    std::vector<ObjectMarker> markers;
    for (std::size_t i = 0; i < object.size(); ++i) {
        const KnownMarker& known = object[i];
        const Eigen::Vector3d place(known.centre[0], known.centre[1], known.centre[2]);
        if (!(std::max(place.cwiseAbs().maxCoeff(), known.sigma) < kFarthestPoint)) continue;
        markers.push_back({static_cast<int>(i), place, known.sigma * known.sigma,
                           known.radius > 0 ? std::log(known.radius) : std::numeric_limits<double>::quiet_NaN()});
    }
    const auto key = [&](const ObjectMarker& m) {
        return std::make_tuple(placeKey(m.place), m.variance, object[static_cast<std::size_t>(m.number)].radius);
    };
    std::stable_sort(markers.begin(), markers.end(), [&](const auto& a, const auto& b) { return key(a) < key(b); });
    std::mt19937 random(1);
    for (std::size_t k = markers.size(); k > 1; --k) std::swap(markers[k - 1], markers[random() % k]);
    return markers;
}

ObjectPoints::ObjectPoints(const std::vector<SpacePoint>& points, double variance) : variance_(variance) {
    for (std::size_t i = 0; i < points.size(); ++i) {
        const SpacePoint& p = points[i];
        if (!usable(p)) continue;
        const Eigen::Matrix3d both = p.covariance + variance * Eigen::Matrix3d::Identity();
        points_.push_back({static_cast<int>(i), p, std::sqrt(both.trace()), both.inverse()});
        if (!saysRadius(p)) points_.back().its.sigmaRadius = 0;
        points_.back().its.probability = std::clamp(p.probability, kLeastProbability, 1.0);
        lines_ = {std::max(lines_[0], p.left + 1), std::max(lines_[1], p.right + 1)};
    }
    const auto key = [](const Point& p) {
        const double radius = p.its.sigmaRadius > 0 ? p.its.logRadius : 0;
        return std::make_tuple(placeKey(p.its.place), p.its.probability, p.sigma, radius, p.its.sigmaRadius);
    };
    std::stable_sort(points_.begin(), points_.end(), [&](const auto& a, const auto& b) { return key(a) < key(b); });
    if (points_.empty()) return;
    expected_ = 0;
    std::vector<double> radii;
    for (const Point& p : points_) {
        expected_ += p.its.probability;
        if (p.its.sigmaRadius > 0) radii.push_back(p.its.logRadius);
    }
    expected_ = std::max(expected_, 1.0);
    if (!radii.empty()) {
        const double high = quantile(radii, 1 - kTrimmed);
        radiusRange_ = high - quantile(radii, kTrimmed) + 2 * kRadiusMargin;
    }
    measureBox();
    measureSpread();
    fillGrid();
}

void ObjectPoints::measureBox() {
    volume_ = 1;
    Eigen::Array3d high;
    for (int axis = 0; axis < 3; ++axis) {
        std::vector<double> places, sigmas;
        for (const Point& p : points_) {
            places.push_back(p.its.place[axis]);
            sigmas.push_back(std::sqrt(p.its.covariance(axis, axis) + variance_));
        }
        const double sigma = quantile(sigmas, 0.5), margin = 2 * kReach * sigma;
        const double to = quantile(places, 1 - kTrimmed), from = quantile(places, kTrimmed);
        volume_ *= std::max((to - from) / (1 - 2 * kTrimmed), kLeastWidth * sigma);
        // Markers that stand out of the trimmed box, but not candidates from anywhere.
        low_[axis] = std::max(*std::min_element(places.begin(), places.end()), 2 * from - to) - margin;
        high[axis] = std::min(*std::max_element(places.begin(), places.end()), 2 * to - from) + margin;
        cell_[axis] = std::max(2 * kReach * sigma, (high[axis] - low_[axis]) / kMostAlongAxis);
    }
    size_ = ((high - low_.array()) / cell_).cast<int>() + 1;
}

/// Of the box along the main axes that has the scatter of the probable points.
void ObjectPoints::measureSpread() {
    double sum = 0;
    Eigen::Vector3d mean = Eigen::Vector3d::Zero();
    Eigen::Matrix3d scatter = Eigen::Matrix3d::Zero(), spread = Eigen::Matrix3d::Zero();
    for (const Point& p : points_) {
        sum += p.its.probability;
        mean += p.its.probability * p.its.place;
    }
    mean /= sum;
    for (const Point& p : points_) {
        const Eigen::Vector3d off = p.its.place - mean;
        scatter += p.its.probability / sum * (off * off.transpose());
        spread += p.its.probability / sum * p.its.covariance;
    }
    const Eigen::SelfAdjointEigenSolver<Eigen::Matrix3d> axes(scatter);
    rightVolume_ = 1;
    for (int axis = 0; axis < 3; ++axis) {
        const Eigen::Vector3d along = axes.eigenvectors().col(axis);
        const double sigma = std::sqrt(along.dot(spread * along) + variance_);
        rightVolume_ *= std::max(std::sqrt(12 * std::max(axes.eigenvalues()[axis], 0.0)), kLeastWidth * sigma);
    }
    rightVolume_ = std::min(rightVolume_, volume_);
}

template <typename Body>
void ObjectPoints::forCells(const Point& point, const Body& body) const {
    const Eigen::Array3d at = (point.its.place - low_).array() / cell_;
    if (!((at >= 0).all() && (at < size_.cast<double>()).all())) return;
    const Eigen::Array3d reach =
        (kReach * (point.its.covariance.diagonal().array() + variance_).sqrt() / cell_).min(kMostCellReach);
    const Eigen::Array3i from = (at - reach).max(0).cast<int>(), to = (at + reach).cast<int>().min(size_ - 1);
    for (int z = from.z(); z <= to.z(); ++z)
        for (int y = from.y(); y <= to.y(); ++y)
            for (int x = from.x(); x <= to.x(); ++x) {
                const int cell = (z * size_.y() + y) * size_.x() + x;
                body(static_cast<std::size_t>(cell));
            }
}

void ObjectPoints::fillGrid() {
    start_.assign(static_cast<std::size_t>(size_.prod()) + 2, 0);
    for (const Point& p : points_) forCells(p, [&](std::size_t cell) { ++start_[cell + 2]; });
    for (std::size_t k = 1; k < start_.size(); ++k) start_[k] += start_[k - 1];
    entry_.resize(static_cast<std::size_t>(start_.back()));
    for (int i = 0; i < static_cast<int>(points_.size()); ++i)
        forCells((*this)[i], [&](std::size_t cell) { entry_[static_cast<std::size_t>(start_[cell + 1]++)] = i; });
}

double ObjectPoints::radiusEvidence(const Point& point, const ObjectMarker& marker) const {
    if (std::isnan(marker.logRadius) || !(point.its.sigmaRadius > 0)) return 0;
    const double sigma = std::hypot(point.its.sigmaRadius, kRadiusTolerance);
    const double off = (point.its.logRadius - marker.logRadius) / sigma;
    const double density = std::exp(-0.5 * off * off) / (std::sqrt(2 * std::numbers::pi) * sigma);
    return std::log(kWrongRadii + (1 - kWrongRadii) * density * radiusRange_);
}

}  // namespace kestrune::matching
