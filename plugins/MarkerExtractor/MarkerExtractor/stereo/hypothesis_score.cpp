// SPDX-License-Identifier: Apache-2.0
#include "MarkerExtractor/stereo/hypothesis_score.h"

#include <algorithm>
#include <limits>
#include <span>

#include "MarkerExtractor/stereo/index.h"

namespace kestrune::constellation {

namespace {

// Weights of the relative difference of distances and the difference of directions (rad) in the cost of a pair.
constexpr double kDistanceWeight = 0.3;
constexpr double kAngleWeight = 0.5;

}  // namespace

void PolarView::lookFrom(cv::Point2d centre) {
    centre_ = centre;
    for (std::size_t i = 0; i < markers_.size(); ++i) radii_[i] = distanceOf(centre, markers_[i]);
    std::fill(angles_.begin(), angles_.end(), std::numeric_limits<double>::quiet_NaN());
}

double PolarView::angle(int i) {
    double& angle = angles_[asIndex(i)];
    const cv::Point2d& marker = markers_[asIndex(i)];
    if (std::isnan(angle)) angle = std::atan2(marker.y - centre_.y, marker.x - centre_.x);
    return angle;
}

HypothesisScore::HypothesisScore(const Constellation& constellation)
    : constellation_(constellation), left_(constellation.left.centres), right_(constellation.right.centres) {
    pairs_.reserve(constellation.left.centres.size());
}

double HypothesisScore::layOn(std::int64_t round, cv::Point2d leftCentroid, cv::Point2d rightCentroid) {
    if (roundOfLeft_ != round) left_.lookFrom(leftCentroid);
    roundOfLeft_ = round;
    right_.lookFrom(rightCentroid);
    return score();
}

/// Fills `pairs_` with the markers that agree with the hypothesis.
/// @return the sum of the pairs' costs.
double HypothesisScore::score() {
    const double lengthTolerance = constellation_.lengthTolerance, angleTolerance = constellation_.angleTolerance;
    double error = 0;
    pairs_.clear();
    for (int t = 0; t < constellation_.left.count(); ++t) {
        const double radius = left_.radius(t);
        int partner = -1;
        double best = 0;
        for (const int u : constellation_.left.candidates(t)) {
            // Both markers may lie on the centroids; 0/0 is then no reason to refuse them.
            const double other = right_.radius(u);
            const double difference = std::abs((other - radius) / std::max(radius, other));
            if (difference > lengthTolerance) continue;
            const double angle = left_.angle(t), otherAngle = right_.angle(u);
            const double turn = std::abs(otherAngle - angle);
            if (turn > angleTolerance || angle * otherAngle < 0) continue;
            const double cost = kDistanceWeight * difference + kAngleWeight * turn;
            if (partner < 0) {
                error += cost;
            } else if (cost < best) {
                error += cost - best;
            } else {
                continue;
            }
            best = cost;
            partner = u;
        }
        if (partner < 0) continue;
        if (hasRival(t, partner, best)) {
            error -= best;
        } else {
            pairs_.emplace_back(t, partner);
        }
    }
    return error;
}

/// Whether another left marker fits right marker `u` better than `t` does.
bool HypothesisScore::hasRival(int t, int u, double cost) {
    const std::span<const int> candidates = constellation_.right.candidates(u);
    if (candidates.size() == 1) return false;
    const double radius = right_.radius(u), angle = right_.angle(u);
    return std::any_of(candidates.begin(), candidates.end(), [&](int v) {
        if (v == t) return false;
        const double other = left_.radius(v);
        const double difference = std::abs((radius - other) / std::max(radius, other));
        if (!(difference <= constellation_.lengthTolerance)) return false;
        const double otherAngle = left_.angle(v), turn = std::abs(angle - otherAngle);
        return turn <= constellation_.angleTolerance && angle * otherAngle >= 0 &&
               kDistanceWeight * difference + kAngleWeight * turn < cost;
    });
}

}  // namespace kestrune::constellation
