// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <atomic>
#include <cstdint>
#include <limits>
#include <mutex>
#include <span>

#include "MarkerExtractor/stereo/constellation.h"

namespace kestrune::constellation {

/// (position of the left marker, position of the right one) among the active markers.
using CompactPair = std::pair<int, int>;

/// What the tests of an edge ask for again and again.
struct EdgeShape {
    std::int32_t first, second;
    double dy;     ///< y of `first` minus y of `second`, px
    double angle;  ///< rad
    bool xShort;   ///< the ends differ so little in x that their order by x means nothing
    bool yShort;
    bool alongRows;
};

/// Right edges of about the length of a left one; `last` is excluded. Empty if `first` is not below `last`.
struct EdgeRange {
    std::int32_t first, last;
    bool holds(std::int32_t edge) const { return edge >= first && edge < last; }
    int size() const { return last > first ? last - first : 0; }
};

/// The markers of one eye that have a candidate, by their positions among each other, and the edges between them.
struct Eye {
    std::vector<const MarkerMatchRecord*> active;
    std::vector<int> original;  ///< index of the record
    std::vector<cv::Point2d> centres;
    std::vector<MarkerEdge> edges;
    std::vector<EdgeShape> shapes;  ///< in step with `edges`

    int count() const { return static_cast<int>(active.size()); }
    /// Active markers of the other eye that marker `i` may be, in the order of its record.
    std::span<const int> candidates(int i) const {
        return {candidates_.data() + offsets_[i], candidates_.data() + offsets_[i + 1]};
    }
    std::size_t candidateCount() const { return candidates_.size(); }

    void activate(const std::vector<MarkerMatchRecord>& records);
    void linkCandidates(const Eye& other, std::size_t otherRecords);

  private:
    std::vector<int> offsets_, candidates_;
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
        return isCandidate_[static_cast<std::size_t>(leftMarker) * right.centres.size() + rightMarker] != 0;
    }
    std::int32_t rightEdgeBetween(int p, int q) const {
        return rightEdgeBetween_[static_cast<std::size_t>(p) * right.centres.size() + q];
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

/// Whether two edges have one end in common, and no more than one.
inline bool shareOneEnd(const EdgeShape& a, const EdgeShape& b, SharedEnds& ends) {
    if (a.first == b.first) {
        ends = {a.first, a.second, b.second};
    } else if (a.first == b.second) {
        ends = {a.first, a.second, b.first};
    } else if (a.second == b.first) {
        ends = {a.second, a.first, b.second};
    } else if (a.second == b.second) {
        ends = {a.second, a.first, b.first};
    } else {
        return false;
    }
    return ends.endA != ends.endB;
}

/// Combines what the threads find in the order in which a single thread would find it. The hypotheses of a batch are
/// numbered; a later one waits until all earlier ones have been taken in.
class InOrderFold {
  public:
    InOrderFold(int required, int patience) : required_(required), patience_(patience) {}

    void beginBatch(int items);
    /// False once it is certain that the search ends before this item.
    bool isNeeded(int item) const { return item <= lastNeeded_.load(std::memory_order_relaxed); }
    /// Hands in an item's outcome; every item that is needed is handed in once.
    /// @param pairs  taken over, empty for a hypothesis that does not stand
    void submit(int item, std::vector<CompactPair>& pairs, double error);

    bool succeeded() const { return succeeded_; }
    std::vector<CompactPair>& best() { return best_; }

  private:
    struct Outcome {
        bool isIn = false;
        double error = 0;
        std::vector<CompactPair> pairs;
    };
    void takeIn(Outcome& outcome);
    bool endsSearch(int validCount, int bestCount) const;

    const int required_, patience_;
    int validCount_ = 0;
    int bestCount_ = std::numeric_limits<int>::min();
    double bestError_ = std::numeric_limits<double>::max();
    std::vector<CompactPair> best_;
    bool succeeded_ = false;

    // Of the batch. What is known of all items handed in, taken in or still waiting, bounds where the search ends.
    std::vector<Outcome> outcomes_;
    int items_ = 0, next_ = 0, lastSubmitted_ = 0;
    int validKnown_ = 0, bestKnown_ = 0;
    std::atomic<int> lastNeeded_{0};
    std::mutex mutex_;
};

/// Distances and directions of all markers of an eye as seen from a point. A direction is worked out when it is first
/// asked for: most markers are ruled out by the distance.
class PolarView {
  public:
    explicit PolarView(const std::vector<cv::Point2d>& markers)
        : markers_(markers), radii_(markers.size()), angles_(markers.size()) {}

    void lookFrom(cv::Point2d centre);
    double radius(int i) const { return radii_[i]; }
    double angle(int i);

  private:
    const std::vector<cv::Point2d>& markers_;
    std::vector<double> radii_, angles_;
    cv::Point2d centre_;
};

/// The search for the best pair of triangles.
class HypothesisSearch {
  public:
    HypothesisSearch(const Constellation& constellation, int required, int patience);

    /// Looks for images of the triangle of two left edges. The edges have one end in common.
    /// @return whether the search has come to its end.
    bool tryEdges(int a, int b, const SharedEnds& ends);
    std::vector<CompactPair>& best() { return fold_.best(); }

  private:
    struct Triangle {
        double thirdLength, thirdAngle;
        cv::Point2d centroid;
    };
    /// A thread's own storage; it lives as long as the search, so that a hypothesis needs no heap.
    struct Workspace {
        explicit Workspace(const Constellation& constellation);
        PolarView left, right;
        std::int64_t roundOfLeft = 0;  ///< round whose triangle `left` looks from
        std::vector<CompactPair> pairs;
    };

    void collectTriangles(const Triangle& triangle, int k);
    bool isThirdSideAlike(const Triangle& triangle, const SharedEnds& ends) const;
    bool scoreBatch(cv::Point2d leftCentroid);
    double score(Workspace& work) const;
    bool hasRival(Workspace& work, int t, int u, double cost) const;

    const Constellation& constellation_;
    InOrderFold fold_;
    std::int64_t round_ = 0;
    std::int64_t scoreTime_;  ///< bound of the time that a hypothesis takes, ns
    std::vector<std::int32_t> firsts_, seconds_;
    std::vector<cv::Point2d> centroids_;  ///< of the right triangles of a batch
    std::vector<Workspace> workspaces_;
};

}  // namespace kestrune::constellation
