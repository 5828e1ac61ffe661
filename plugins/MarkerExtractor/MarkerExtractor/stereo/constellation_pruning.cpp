// SPDX-License-Identifier: Apache-2.0
#include "MarkerExtractor/stereo/constellation_pruning.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <numbers>

#include "MarkerExtractor/stereo/index.h"

namespace kestrune {

namespace {

constexpr double kTurn = 2 * std::numbers::pi;
// A difference of nearly a whole turn is one of nearly none: directions here run from -pi to pi.
constexpr double kNearlyWholeTurn = 0.95;
constexpr double kNearlyNoTurn = 0.05;
/// An edge that differs this many times the tolerance in length contradicts already with half the angle's tolerance.
constexpr double kLooseLength = 1.5;
constexpr double kTightAngle = 0.5;
// Weights of the relative difference of lengths and the difference of directions (rad) in a pair's cost.
constexpr double kLengthWeight = 0.3;
constexpr double kAngleWeight = 0.5;

struct TableEntry {
    double length = 0, angle = 0;
};

/// Lengths and directions between the markers of the pairs, seen from the row's marker.
class EdgeTable {
  public:
    explicit EdgeTable(const std::vector<const MarkerMatchRecord*>& markers) : n_(markers.size()), entries_(n_ * n_) {
        for (std::size_t i = 0; i < n_; ++i) {
            for (std::size_t j = i + 1; j < n_; ++j) {
                const double dx = markers[j]->x - markers[i]->x, dy = markers[j]->y - markers[i]->y;
                const double length = std::sqrt(dx * dx + dy * dy);
                entries_[i * n_ + j] = {length, std::atan2(dy, dx)};
                entries_[j * n_ + i] = {length, std::atan2(-dy, -dx)};
            }
        }
    }
    const TableEntry& operator()(std::size_t i, std::size_t j) const { return entries_[i * n_ + j]; }

  private:
    std::size_t n_;
    std::vector<TableEntry> entries_;
};

struct Difference {
    double length;  ///< relative
    double angle;   ///< rad
};

Difference differenceOf(const TableEntry& left, const TableEntry& right) {
    return {std::abs((right.length - left.length) / std::max(right.length, left.length)),
            std::abs(right.angle - left.angle)};
}

bool contradict(const TableEntry& left, const TableEntry& right, double lengthTolerance, double angleTolerance) {
    const Difference d = differenceOf(left, right);
    const double turns = d.angle / kTurn;
    if (turns < kNearlyWholeTurn && d.angle > angleTolerance) return true;
    if (right.angle * left.angle < 0 && turns > kNearlyNoTurn && turns < kNearlyWholeTurn) return true;
    return d.length > kLooseLength * lengthTolerance && d.angle > kTightAngle * angleTolerance;
}

/// How badly pair i fits the pairs that are kept, apart from its adversary.
double costAgainstKept(const EdgeTable& left, const EdgeTable& right, const std::vector<std::uint8_t>& keep,
                       std::size_t i, std::size_t adversary) {
    double cost = 0;
    for (std::size_t c = 0; c < keep.size(); ++c) {
        if (!keep[c] || c == i || c == adversary) continue;
        const Difference d = differenceOf(left(i, c), right(i, c));
        cost += kLengthWeight * d.length + kAngleWeight * d.angle;
    }
    return cost;
}

}  // namespace

void pruneInconsistentPairs(const std::vector<const MarkerMatchRecord*>& leftActive,
                            const std::vector<const MarkerMatchRecord*>& rightActive,
                            std::vector<std::pair<int, int>>& pairs, double edgeLengthTolerance,
                            double edgeAngleTolerance) {
    const std::size_t n = pairs.size();
    std::vector<const MarkerMatchRecord*> leftMarkers, rightMarkers;
    for (const auto& [l, r] : pairs) {
        leftMarkers.push_back(leftActive[asIndex(l)]);
        rightMarkers.push_back(rightActive[asIndex(r)]);
    }
    const EdgeTable left(leftMarkers), right(rightMarkers);

    std::vector<std::uint8_t> keep(n, 1);
    std::vector<std::pair<std::size_t, std::size_t>> conflicts;
    for (std::size_t i = 0; i < n; ++i) {
        for (std::size_t j = i + 1; j < n; ++j) {
            if (!contradict(left(i, j), right(i, j), std::abs(edgeLengthTolerance), edgeAngleTolerance)) continue;
            conflicts.emplace_back(i, j);
            keep[i] = keep[j] = 0;
        }
    }
    // A conflict's outcome counts for those after it: the loser of one may come back by winning another.
    for (const auto& [i, j] : conflicts) {
        const double costI = costAgainstKept(left, right, keep, i, j);
        const double costJ = costAgainstKept(left, right, keep, j, i);
        keep[i] = costJ >= costI;
        keep[j] = !(costJ > costI);
    }
    std::size_t kept = 0;
    for (std::size_t i = 0; i < n; ++i) {
        if (keep[i]) pairs[kept++] = pairs[i];
    }
    pairs.resize(kept);
}

}  // namespace kestrune
