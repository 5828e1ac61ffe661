// SPDX-License-Identifier: Apache-2.0
#include <algorithm>
#include <cmath>

#include "MarkerExtractor/stereo/constellation_internal.h"
#include "parallel/parallel_loop.h"

namespace kestrune::constellation {

namespace {

// Weights of the relative difference of distances and the difference of directions (rad) in the cost of a pair.
constexpr double kDistanceWeight = 0.3;
constexpr double kAngleWeight = 0.5;
/// Triangles can always be laid on each other with their own three corners; less than that is chance.
constexpr std::size_t kLeastPairs = 3;
/// Hypotheses that must stand before a large one is believed, and, times the patience, before any is.
constexpr int kConfirmations = 6;
/// Hypotheses that are collected before they are scored. Enough to keep many threads busy, and little to throw away
/// when the search ends with the first of them.
constexpr std::size_t kBatch = 256;
/// Bound of the time that a marker or candidate takes in the score of a hypothesis, ns: two directions of it.
constexpr std::int64_t kScoreTime = 100;

cv::Point2d meanOf(cv::Point2d a, cv::Point2d b, cv::Point2d c) {
    return {(a.x + b.x + c.x) / 3, (a.y + b.y + c.y) / 3};
}

double distanceOf(cv::Point2d a, cv::Point2d b) {
    const double dx = b.x - a.x, dy = b.y - a.y;
    return std::sqrt(dx * dx + dy * dy);
}

}  // namespace

void InOrderFold::beginBatch(int items) {
    items_ = items;
    next_ = lastSubmitted_ = 0;
    validKnown_ = validCount_;
    bestKnown_ = bestCount_;
    if (outcomes_.size() < static_cast<std::size_t>(items)) outcomes_.resize(items);
    for (int item = 0; item < items; ++item) outcomes_[item].isIn = false;
    lastNeeded_.store(items - 1, std::memory_order_relaxed);
}

bool InOrderFold::endsSearch(int validCount, int bestCount) const {
    return (validCount >= kConfirmations && bestCount >= required_) || validCount >= kConfirmations * patience_;
}

void InOrderFold::takeIn(Outcome& outcome) {
    if (outcome.pairs.empty()) return;
    ++validCount_;
    const int count = static_cast<int>(outcome.pairs.size());
    if (count > bestCount_ || (count == bestCount_ && outcome.error < bestError_)) {
        best_.swap(outcome.pairs);
        bestCount_ = count;
        bestError_ = outcome.error;
    }
    succeeded_ = endsSearch(validCount_, bestCount_);
}

void InOrderFold::submit(int item, std::vector<CompactPair>& pairs, double error) {
    const std::lock_guard lock(mutex_);
    if (!pairs.empty()) {
        ++validKnown_;
        bestKnown_ = std::max(bestKnown_, static_cast<int>(pairs.size()));
    }
    lastSubmitted_ = std::max(lastSubmitted_, item);
    outcomes_[item].isIn = true;
    outcomes_[item].error = error;
    // A refused hypothesis leaves the thread its storage, so that none has to be found for the next one.
    outcomes_[item].pairs.clear();
    if (!pairs.empty()) outcomes_[item].pairs.swap(pairs);
    while (next_ < items_ && outcomes_[next_].isIn && !succeeded_) takeIn(outcomes_[next_++]);
    // If all that is known now is enough to end the search, it ends at the latest with the last item handed in.
    int last = lastNeeded_.load(std::memory_order_relaxed);
    if (succeeded_) {
        last = std::min(last, next_ - 1);
    } else if (endsSearch(validKnown_, bestKnown_)) {
        last = std::min(last, lastSubmitted_);
    }
    lastNeeded_.store(last, std::memory_order_relaxed);
}

void PolarView::lookFrom(cv::Point2d centre) {
    centre_ = centre;
    for (std::size_t i = 0; i < markers_.size(); ++i) radii_[i] = distanceOf(centre, markers_[i]);
    std::fill(angles_.begin(), angles_.end(), std::numeric_limits<double>::quiet_NaN());
}

double PolarView::angle(int i) {
    if (std::isnan(angles_[i])) angles_[i] = std::atan2(markers_[i].y - centre_.y, markers_[i].x - centre_.x);
    return angles_[i];
}

HypothesisSearch::Workspace::Workspace(const Constellation& constellation)
    : left(constellation.left.centres), right(constellation.right.centres) {
    pairs.reserve(constellation.left.centres.size());
}

HypothesisSearch::HypothesisSearch(const Constellation& constellation, int required, int patience)
    : constellation_(constellation),
      fold_(required, patience),
      scoreTime_(kScoreTime *
                 static_cast<std::int64_t>(constellation.left.centres.size() + constellation.left.candidateCount() +
                                           constellation.right.centres.size() + constellation.right.candidateCount())) {
    firsts_.reserve(constellation.right.edges.size());
    seconds_.reserve(constellation.right.edges.size());
    const int threads = largestTeam();
    workspaces_.reserve(threads);
    for (int i = 0; i < threads; ++i) workspaces_.emplace_back(constellation);
}

bool HypothesisSearch::tryEdges(int a, int b, const SharedEnds& ends) {
    constellation_.collectImages(a, firsts_);
    if (firsts_.empty()) return false;
    constellation_.collectImages(b, seconds_);
    if (seconds_.empty()) return false;

    const std::vector<cv::Point2d>& markers = constellation_.left.centres;
    const cv::Point2d endA = markers[ends.endA], endB = markers[ends.endB];
    const Triangle triangle{distanceOf(endA, endB), std::atan2(endB.y - endA.y, endB.x - endA.x),
                            meanOf(endA, endB, markers[ends.shared])};
    ++round_;
    centroids_.clear();
    for (const std::int32_t k : firsts_) {
        collectTriangles(triangle, k);
        if (centroids_.size() >= kBatch && scoreBatch(triangle.centroid)) return true;
    }
    return !centroids_.empty() && scoreBatch(triangle.centroid);
}

/// Adds the right triangles with edge `k` that may be the image of the left one.
void HypothesisSearch::collectTriangles(const Triangle& triangle, int k) {
    const EdgeShape& first = constellation_.right.shapes[k];
    for (const std::int32_t m : seconds_) {
        const EdgeShape& second = constellation_.right.shapes[m];
        SharedEnds ends{};
        if (!shareOneEnd(first, second, ends) || (first.alongRows && second.alongRows)) continue;
        if (!isThirdSideAlike(triangle, ends)) continue;
        const std::vector<cv::Point2d>& markers = constellation_.right.centres;
        centroids_.push_back(meanOf(markers[ends.endA], markers[ends.endB], markers[ends.shared]));
    }
}

/// Lays the left triangle on all right ones of the batch, and empties the batch.
/// @return whether the search has come to its end.
bool HypothesisSearch::scoreBatch(cv::Point2d leftCentroid) {
    const int items = static_cast<int>(centroids_.size());
    fold_.beginBatch(items);
    forEachInParallel(items, scoreTime_, [&](int item, int thread) {
        if (!fold_.isNeeded(item)) return;
        Workspace& work = workspaces_[thread];
        if (work.roundOfLeft != round_) work.left.lookFrom(leftCentroid);
        work.roundOfLeft = round_;
        work.right.lookFrom(centroids_[item]);
        const double error = score(work);
        if (work.pairs.size() < kLeastPairs) work.pairs.clear();
        fold_.submit(item, work.pairs, error);
    });
    centroids_.clear();
    return fold_.succeeded();
}

bool HypothesisSearch::isThirdSideAlike(const Triangle& triangle, const SharedEnds& ends) const {
    const cv::Point2d endA = constellation_.right.centres[ends.endA], endB = constellation_.right.centres[ends.endB];
    const double ratio = std::abs(triangle.thirdLength / distanceOf(endA, endB));
    if (ratio < 1 - constellation_.lengthTolerance || ratio > 1 + constellation_.lengthTolerance) return false;
    const double angle = std::atan2(endB.y - endA.y, endB.x - endA.x);
    return !(std::abs(angle - triangle.thirdAngle) > constellation_.angleTolerance);
}

/// Fills `pairs` with the markers that agree with the hypothesis.
/// @return the sum of the pairs' costs.
double HypothesisSearch::score(Workspace& work) const {
    const double lengthTolerance = constellation_.lengthTolerance, angleTolerance = constellation_.angleTolerance;
    double error = 0;
    work.pairs.clear();
    for (int t = 0; t < constellation_.left.count(); ++t) {
        const double radius = work.left.radius(t);
        int partner = -1;
        double best = 0;
        for (const int u : constellation_.left.candidates(t)) {
            // Both markers may lie on the centroids; 0/0 is then no reason to refuse them.
            const double other = work.right.radius(u);
            const double difference = std::abs((other - radius) / std::max(radius, other));
            if (difference > lengthTolerance) continue;
            const double angle = work.left.angle(t), otherAngle = work.right.angle(u);
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
        if (hasRival(work, t, partner, best)) {
            error -= best;
        } else {
            work.pairs.emplace_back(t, partner);
        }
    }
    return error;
}

/// Whether another left marker fits right marker `u` better than `t` does.
bool HypothesisSearch::hasRival(Workspace& work, int t, int u, double cost) const {
    const std::span<const int> candidates = constellation_.right.candidates(u);
    if (candidates.size() == 1) return false;
    const double radius = work.right.radius(u), angle = work.right.angle(u);
    return std::any_of(candidates.begin(), candidates.end(), [&](int v) {
        if (v == t) return false;
        const double other = work.left.radius(v);
        const double difference = std::abs((radius - other) / std::max(radius, other));
        if (!(difference <= constellation_.lengthTolerance)) return false;
        const double otherAngle = work.left.angle(v), turn = std::abs(angle - otherAngle);
        return turn <= constellation_.angleTolerance && angle * otherAngle >= 0 &&
               kDistanceWeight * difference + kAngleWeight * turn < cost;
    });
}

}  // namespace kestrune::constellation
