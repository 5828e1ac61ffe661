// SPDX-License-Identifier: Apache-2.0
#include "MarkerExtractor/stereo/constellation.h"

#include <algorithm>
#include <numeric>
#include <optional>
#include <random>

#include "MarkerExtractor/stereo/hypothesis_search.h"
#include "MarkerExtractor/stereo/index.h"

namespace kestrune {

namespace {

/// From this number of left edges on, not all pairs of edges can be tried: 64 markers have 2,016 edges.
constexpr std::int64_t kLargeSet = 2'000;
constexpr std::int64_t kLargeSetDraws = 2'000'000;
// How many times the usual number of hypotheses may stand without a large one among them before the best one is taken.
constexpr int kPatience = 4;
constexpr int kLargeSetPatience = 6;

/// Draws pairs of left edges until the search comes to its end.
bool sampleEdges(const constellation::Constellation& constellation, constellation::HypothesisSearch& search,
                 std::int64_t draws) {
    const std::vector<constellation::EdgeShape>& edges = constellation.left.shapes;
    const int n = static_cast<int>(edges.size());
    std::vector<int> order(edges.size());
    std::iota(order.begin(), order.end(), 0);
    std::mt19937 generator;  // the default seed, afresh in each call: the same records give the same pairs
    std::uniform_int_distribution<int> draw(0, n - 1);
    for (std::int64_t i = 0; i < draws; ++i) {
        std::swap(order[0], order[asIndex(draw(generator))]);
        std::swap(order[1], order[asIndex(draw(generator))]);
        const auto [a, b] = std::minmax(order[0], order[1]);
        const constellation::EdgeShape &edgeA = edges[asIndex(a)], &edgeB = edges[asIndex(b)];
        const std::optional<constellation::SharedEnds> ends = sharedEnds(edgeA, edgeB);
        if (!ends || (edgeA.alongRows && edgeB.alongRows)) continue;
        if (constellation.ranges[asIndex(a)].size() == 0 || constellation.ranges[asIndex(b)].size() == 0) continue;
        if (search.tryEdges(a, b, *ends)) return true;
    }
    return false;
}

}  // namespace

bool findConstellation(const std::vector<MarkerMatchRecord>& leftRecords,
                       const std::vector<MarkerMatchRecord>& rightRecords, double edgeLengthTolerance,
                       double edgeAngleTolerance, std::vector<std::pair<int, int>>& pairs) {
    pairs.clear();
    const constellation::Constellation constellation(leftRecords, rightRecords, edgeLengthTolerance,
                                                     edgeAngleTolerance);
    const auto n = static_cast<std::int64_t>(constellation.left.edges.size());
    if (n < 2 || constellation.right.edges.empty()) return false;

    const bool isLarge = n >= kLargeSet;
    const int required = (3 * std::min(constellation.left.count(), constellation.right.count())) >> 2;
    constellation::HypothesisSearch search(constellation, required, isLarge ? kLargeSetPatience : kPatience);
    if (!sampleEdges(constellation, search, isLarge ? kLargeSetDraws : n * (n - 1) / 2)) return false;

    pairs.swap(search.best());
    pruneInconsistentPairs(constellation.left.active, constellation.right.active, pairs, edgeLengthTolerance,
                           edgeAngleTolerance);
    for (auto& [left, right] : pairs) {
        left = constellation.left.original[asIndex(left)];
        right = constellation.right.original[asIndex(right)];
    }
    return true;
}

}  // namespace kestrune
