// SPDX-License-Identifier: Apache-2.0
#include "MarkerExtractor/stereo/hypothesis_search.h"

#include <algorithm>
#include <cmath>
#include <optional>

#include "MarkerExtractor/stereo/index.h"
#include "parallel/parallel_loop.h"

namespace kestrune::constellation {

namespace {

/// Triangles can always be laid on each other with their own three corners; less than that is chance.
constexpr std::size_t kLeastPairs = 3;
/// Hypotheses that are collected before they are scored. Enough to keep many threads busy, and little to throw away
/// when the search ends with the first of them.
constexpr std::size_t kBatch = 256;
/// Bound of the time that a marker or candidate takes in the score of a hypothesis, ns: two directions of it.
constexpr std::int64_t kScoreTime = 100;

cv::Point2d meanOf(cv::Point2d a, cv::Point2d b, cv::Point2d c) {
    return {(a.x + b.x + c.x) / 3, (a.y + b.y + c.y) / 3};
}

}  // namespace

HypothesisSearch::HypothesisSearch(const Constellation& constellation, int required, int patience)
    : constellation_(constellation),
      fold_(required, patience),
      scoreTime_(kScoreTime *
                 static_cast<std::int64_t>(constellation.left.centres.size() + constellation.left.candidateCount() +
                                           constellation.right.centres.size() + constellation.right.candidateCount())) {
    firsts_.reserve(constellation.right.edges.size());
    seconds_.reserve(constellation.right.edges.size());
    const int threads = largestTeam();
    scores_.reserve(asIndex(threads));
    for (int i = 0; i < threads; ++i) scores_.emplace_back(constellation);
}

bool HypothesisSearch::tryEdges(int a, int b, const SharedEnds& ends) {
    constellation_.collectImages(a, firsts_);
    if (firsts_.empty()) return false;
    constellation_.collectImages(b, seconds_);
    if (seconds_.empty()) return false;

    const std::vector<cv::Point2d>& markers = constellation_.left.centres;
    const cv::Point2d endA = markers[asIndex(ends.endA)], endB = markers[asIndex(ends.endB)];
    const Triangle triangle{distanceOf(endA, endB), std::atan2(endB.y - endA.y, endB.x - endA.x),
                            meanOf(endA, endB, markers[asIndex(ends.shared)])};
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
    const EdgeShape& first = constellation_.right.shapes[asIndex(k)];
    for (const std::int32_t m : seconds_) {
        const EdgeShape& second = constellation_.right.shapes[asIndex(m)];
        const std::optional<SharedEnds> ends = sharedEnds(first, second);
        if (!ends || (first.alongRows && second.alongRows) || !isThirdSideAlike(triangle, *ends)) continue;
        const std::vector<cv::Point2d>& markers = constellation_.right.centres;
        centroids_.push_back(
            meanOf(markers[asIndex(ends->endA)], markers[asIndex(ends->endB)], markers[asIndex(ends->shared)]));
    }
}

/// Lays the left triangle on all right ones of the batch, and empties the batch.
/// @return whether the search has come to its end.
bool HypothesisSearch::scoreBatch(cv::Point2d leftCentroid) {
    const int items = static_cast<int>(centroids_.size());
    fold_.beginBatch(items);
    forEachInParallel(items, scoreTime_, [&](int item, int thread) {
        if (!fold_.isNeeded(item)) return;
        HypothesisScore& score = scores_[asIndex(thread)];
        const double error = score.layOn(round_, leftCentroid, centroids_[asIndex(item)]);
        if (score.pairs().size() < kLeastPairs) score.pairs().clear();
        fold_.submit(item, score.pairs(), error);
    });
    centroids_.clear();
    return fold_.succeeded();
}

bool HypothesisSearch::isThirdSideAlike(const Triangle& triangle, const SharedEnds& ends) const {
    const std::vector<cv::Point2d>& markers = constellation_.right.centres;
    const cv::Point2d endA = markers[asIndex(ends.endA)], endB = markers[asIndex(ends.endB)];
    const double ratio = std::abs(triangle.thirdLength / distanceOf(endA, endB));
    if (ratio < 1 - constellation_.lengthTolerance || ratio > 1 + constellation_.lengthTolerance) return false;
    const double angle = std::atan2(endB.y - endA.y, endB.x - endA.x);
    return !(std::abs(angle - triangle.thirdAngle) > constellation_.angleTolerance);
}

}  // namespace kestrune::constellation
