// SPDX-License-Identifier: Apache-2.0
#include "MarkerExtractor/stereo/constellation_edges.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "MarkerExtractor/stereo/index.h"
#include "parallel/parallel_loop.h"

namespace kestrune::constellation {

namespace {

/// How many edges are passed over in the time that it takes to look one up by its ends.
constexpr std::size_t kJoinCost = 4;
/// Bound of the time to look up the range of an edge, ns.
constexpr std::int64_t kLookUpTime = 1'000;

std::int32_t firstNotShorter(const std::vector<MarkerEdge>& edges, double length) {
    const auto isBelow = [](const MarkerEdge& edge, double bound) { return edge.length < bound; };
    return static_cast<std::int32_t>(std::lower_bound(edges.begin(), edges.end(), length, isBelow) - edges.begin());
}

}  // namespace

Constellation::Constellation(const std::vector<MarkerMatchRecord>& leftRecords,
                             const std::vector<MarkerMatchRecord>& rightRecords, double edgeLengthTolerance,
                             double edgeAngleTolerance)
    : lengthTolerance(std::abs(edgeLengthTolerance)), angleTolerance(edgeAngleTolerance) {
    left.activate(leftRecords);
    right.activate(rightRecords);
    left.linkCandidates(right, rightRecords.size());
    right.linkCandidates(left, leftRecords.size());

    const std::size_t rightCount = right.centres.size();
    isCandidate_.assign(left.centres.size() * rightCount, 0);
    for (int i = 0; i < left.count(); ++i) {
        for (const int u : left.candidates(i)) isCandidate_[asIndex(i) * rightCount + asIndex(u)] = 1;
    }
    rightDirections_.reserve(right.shapes.size());
    for (const EdgeShape& edge : right.shapes) {
        rightDirections_.push_back(edge.xShort || edge.yShort ? std::numeric_limits<double>::infinity() : edge.angle);
    }
    rightEdgeBetween_.assign(rightCount * rightCount, -1);
    for (std::size_t k = 0; k < right.shapes.size(); ++k) {
        const std::size_t p = asIndex(right.shapes[k].first), q = asIndex(right.shapes[k].second);
        rightEdgeBetween_[p * rightCount + q] = rightEdgeBetween_[q * rightCount + p] = static_cast<std::int32_t>(k);
    }
    findRanges(edgeLengthTolerance);
}

void Constellation::findRanges(double edgeLengthTolerance) {
    const auto n = static_cast<std::int32_t>(left.edges.size());
    ranges.assign(left.edges.size(), {0, 0});
    if (n == 0 || right.edges.empty()) return;
    forEachInParallel(n, kLookUpTime, [&](int e) {
        const double length = left.edges[asIndex(e)].length;
        ranges[asIndex(e)] = {firstNotShorter(right.edges, (1 - edgeLengthTolerance) * length),
                              firstNotShorter(right.edges, (1 + edgeLengthTolerance) * length)};
    });
}

bool Constellation::canCorrespond(const EdgeShape& leftEdge, const EdgeShape& rightEdge) const {
    if (rightEdge.xShort != leftEdge.xShort || rightEdge.yShort != leftEdge.yShort) return false;
    // The direction of an edge with a short side is mostly noise.
    if (!leftEdge.xShort && !leftEdge.yShort &&
        (leftEdge.angle * rightEdge.angle < 0 || std::abs(leftEdge.angle - rightEdge.angle) > angleTolerance)) {
        return false;
    }
    int p = rightEdge.first, q = rightEdge.second;
    // The ends of a nearly upright edge are told apart by their rows.
    if (leftEdge.xShort && rightEdge.dy * leftEdge.dy < 0) std::swap(p, q);
    return isCandidate(leftEdge.first, p) && isCandidate(leftEdge.second, q);
}

void Constellation::collectImages(int a, std::vector<std::int32_t>& images) const {
    images.clear();
    const EdgeShape& leftEdge = left.shapes[asIndex(a)];
    const EdgeRange range = ranges[asIndex(a)];
    const std::span<const int> from = left.candidates(leftEdge.first), to = left.candidates(leftEdge.second);
    if (kJoinCost * from.size() * to.size() < static_cast<std::size_t>(range.size())) {
        for (const int p : from) {
            for (const int q : to) {
                const std::int32_t k = rightEdgeBetween(p, q);
                if (range.holds(k) && canCorrespond(leftEdge, right.shapes[asIndex(k)])) images.push_back(k);
            }
        }
        std::sort(images.begin(), images.end());
        images.erase(std::unique(images.begin(), images.end()), images.end());
        return;
    }
    const bool isDirected = !leftEdge.xShort && !leftEdge.yShort;
    for (std::int32_t k = range.first; k < range.last; ++k) {
        // Most edges differ in direction; the rest need a closer look.
        if (isDirected && std::abs(rightDirections_[asIndex(k)] - leftEdge.angle) > angleTolerance) continue;
        if (canCorrespond(leftEdge, right.shapes[asIndex(k)])) images.push_back(k);
    }
}

}  // namespace kestrune::constellation
