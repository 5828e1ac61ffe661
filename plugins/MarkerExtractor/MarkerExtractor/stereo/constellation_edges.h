// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "MarkerExtractor/stereo/constellation_eye.h"
#include "MarkerExtractor/stereo/index.h"

namespace kestrune::constellation {

/// Right edges of about the length of a left one; `last` is excluded. Empty if `first` is not below `last`.
struct EdgeRange {
    std::int32_t first, last;
    bool holds(std::int32_t edge) const { return edge >= first && edge < last; }
    int size() const { return last > first ? last - first : 0; }
};

/// Everything about two lists of records that stays as it is during the search.
class Constellation {
  public:
    Constellation(const std::vector<MarkerMatchRecord>& leftRecords, const std::vector<MarkerMatchRecord>& rightRecords,
                  double edgeLengthTolerance, double edgeAngleTolerance);

    Eye left, right;
    std::vector<EdgeRange> ranges;  ///< of right edges, one for each left edge
    double lengthTolerance;         ///< absolute value
    double angleTolerance;

    /// Whether a right edge can be the image of a left one: alike in direction, and its ends candidates of the left
    /// edge's ends.
    bool canCorrespond(const EdgeShape& leftEdge, const EdgeShape& rightEdge) const;
    /// The right edges that can be the image of left edge `a`, ascending.
    void collectImages(int a, std::vector<std::int32_t>& images) const;

  private:
    bool isCandidate(int leftMarker, int rightMarker) const {
        return isCandidate_[asIndex(leftMarker) * right.centres.size() + asIndex(rightMarker)] != 0;
    }
    std::int32_t rightEdgeBetween(int p, int q) const {
        return rightEdgeBetween_[asIndex(p) * right.centres.size() + asIndex(q)];
    }
    void findRanges(double edgeLengthTolerance);

    std::vector<std::uint8_t> isCandidate_;       ///< left by right
    std::vector<double> rightDirections_;         ///< angles, infinite for edges with a short side
    std::vector<std::int32_t> rightEdgeBetween_;  ///< right by right; -1 on the diagonal
};

/// The corners of the triangle that two edges form.
struct SharedEnds {
    int shared, endA, endB;
};

/// The triangle of two edges that have one end in common, and no more than one.
inline std::optional<SharedEnds> sharedEnds(const EdgeShape& a, const EdgeShape& b) {
    SharedEnds ends;
    if (a.first == b.first) {
        ends = {a.first, a.second, b.second};
    } else if (a.first == b.second) {
        ends = {a.first, a.second, b.first};
    } else if (a.second == b.first) {
        ends = {a.second, a.first, b.second};
    } else if (a.second == b.second) {
        ends = {a.second, a.first, b.first};
    } else {
        return std::nullopt;
    }
    if (ends.endA == ends.endB) return std::nullopt;
    return ends;
}

}  // namespace kestrune::constellation
