// SPDX-License-Identifier: Apache-2.0
#include <algorithm>
#include <cmath>

#include "MarkerExtractor/stereo/constellation_internal.h"
#include "parallel/parallel_loop.h"

namespace kestrune {

namespace {

/// Ends closer than this in x (or y) have no reliable order there: noise and disparity may turn it around.
constexpr double kShort = 2.0;
/// Least 1 - |cos| of an edge that does not run along the rows. Edges along the rows say nothing about the rows, and a
/// triangle needs at least one that does.
constexpr double kAlongRows = 0.003;
/// How many edges are passed over in the time that it takes to look one up by its ends.
constexpr std::size_t kJoinCost = 4;
/// Bound of the time to look up the range of an edge, ns.
constexpr std::int64_t kLookUpTime = 1'000;

bool isShorter(const MarkerEdge& a, const MarkerEdge& b) {
    return a.length < b.length || (std::isnan(b.length) && !std::isnan(a.length));
}

std::int32_t firstNotShorter(const std::vector<MarkerEdge>& edges, double length) {
    const auto isBelow = [](const MarkerEdge& edge, double bound) { return edge.length < bound; };
    return static_cast<std::int32_t>(std::lower_bound(edges.begin(), edges.end(), length, isBelow) - edges.begin());
}

std::vector<constellation::EdgeShape> shapesOf(const std::vector<MarkerEdge>& edges) {
    std::vector<constellation::EdgeShape> shapes;
    shapes.reserve(edges.size());
    for (const MarkerEdge& edge : edges) {
        const double dx = edge.from->x - edge.to->x, dy = edge.from->y - edge.to->y;
        shapes.push_back({edge.first, edge.second, dy, edge.angle, std::abs(dx) < kShort, std::abs(dy) < kShort,
                          1 - std::abs(std::cos(edge.angle)) < kAlongRows});
    }
    return shapes;
}

}  // namespace

std::vector<MarkerEdge> buildEdges(const std::vector<const MarkerMatchRecord*>& active) {
    const auto n = static_cast<std::int32_t>(active.size());
    std::vector<MarkerEdge> edges;
    if (n > 1) edges.reserve(static_cast<std::size_t>(n) * (n - 1) / 2);
    for (std::int32_t a = 0; a < n; ++a) {
        for (std::int32_t b = a + 1; b < n; ++b) {
            const double dx = active[a]->x - active[b]->x, dy = active[a]->y - active[b]->y;
            const double length = std::sqrt(dx * dx + dy * dy);
            const double angle = dx >= 0 ? std::atan2(dy, dx) : std::atan2(-dy, -dx);
            const bool isAFirst = dx < 0;
            const std::int32_t first = isAFirst ? a : b, second = isAFirst ? b : a;
            edges.push_back({first, second, active[first], active[second], length, angle});
        }
    }
    std::stable_sort(edges.begin(), edges.end(), isShorter);
    return edges;
}

namespace constellation {

void Eye::activate(const std::vector<MarkerMatchRecord>& records) {
    for (std::size_t i = 0; i < records.size(); ++i) {
        if (records[i].matches.empty()) continue;
        active.push_back(&records[i]);
        original.push_back(static_cast<int>(i));
        centres.emplace_back(records[i].x, records[i].y);
    }
    edges = buildEdges(active);
    shapes = shapesOf(edges);
}

void Eye::linkCandidates(const Eye& other, std::size_t otherRecords) {
    const auto isFinite = [](cv::Point2d p) { return std::isfinite(p.x) && std::isfinite(p.y); };
    std::vector<int> compact(otherRecords, -1);
    for (int i = 0; i < other.count(); ++i) {
        if (isFinite(other.centres[i])) compact[other.original[i]] = i;
    }
    offsets_.assign(1, 0);
    for (int i = 0; i < count(); ++i) {
        for (const int match : active[i]->matches) {
            const bool isRecord = match >= 0 && static_cast<std::size_t>(match) < otherRecords;
            if (isRecord && compact[match] >= 0 && isFinite(centres[i])) candidates_.push_back(compact[match]);
        }
        offsets_.push_back(static_cast<int>(candidates_.size()));
    }
}

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
        for (const int u : left.candidates(i)) isCandidate_[i * rightCount + u] = 1;
    }
    rightDirections_.reserve(right.shapes.size());
    for (const EdgeShape& edge : right.shapes) {
        rightDirections_.push_back(edge.xShort || edge.yShort ? std::numeric_limits<double>::infinity() : edge.angle);
    }
    rightEdgeBetween_.assign(rightCount * rightCount, -1);
    for (std::size_t k = 0; k < right.shapes.size(); ++k) {
        const std::size_t p = right.shapes[k].first, q = right.shapes[k].second;
        rightEdgeBetween_[p * rightCount + q] = rightEdgeBetween_[q * rightCount + p] = static_cast<std::int32_t>(k);
    }
    findRanges(edgeLengthTolerance);
}

void Constellation::findRanges(double edgeLengthTolerance) {
    const auto n = static_cast<std::int32_t>(left.edges.size());
    ranges.assign(n, {0, 0});
    if (n == 0 || right.edges.empty()) return;
    forEachInParallel(n, kLookUpTime, [&](int e) {
        const double length = left.edges[e].length;
        ranges[e] = {firstNotShorter(right.edges, (1 - edgeLengthTolerance) * length),
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
    const EdgeShape& leftEdge = left.shapes[a];
    const EdgeRange range = ranges[a];
    const std::span<const int> from = left.candidates(leftEdge.first), to = left.candidates(leftEdge.second);
    if (kJoinCost * from.size() * to.size() < static_cast<std::size_t>(range.size())) {
        for (const int p : from) {
            for (const int q : to) {
                const std::int32_t k = rightEdgeBetween(p, q);
                if (range.holds(k) && canCorrespond(leftEdge, right.shapes[k])) images.push_back(k);
            }
        }
        std::sort(images.begin(), images.end());
        images.erase(std::unique(images.begin(), images.end()), images.end());
        return;
    }
    const bool isDirected = !leftEdge.xShort && !leftEdge.yShort;
    for (std::int32_t k = range.first; k < range.last; ++k) {
        // Most edges differ in direction; the rest need a closer look.
        if (isDirected && std::abs(rightDirections_[k] - leftEdge.angle) > angleTolerance) continue;
        if (canCorrespond(leftEdge, right.shapes[k])) images.push_back(k);
    }
}

}  // namespace constellation

}  // namespace kestrune
