// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cmath>
#include <cstdint>
#include <opencv2/core.hpp>
#include <vector>

#include "MarkerExtractor/stereo/constellation_edges.h"
#include "MarkerExtractor/stereo/index.h"
#include "MarkerExtractor/stereo/ordered_fold.h"

namespace kestrune::constellation {

/// px
inline double distanceOf(cv::Point2d a, cv::Point2d b) {
    const double dx = b.x - a.x, dy = b.y - a.y;
    return std::sqrt(dx * dx + dy * dy);
}

/// Distances and directions of all markers of an eye as seen from a point. A direction is worked out when it is first
/// asked for: most markers are ruled out by the distance.
class PolarView {
  public:
    explicit PolarView(const std::vector<cv::Point2d>& markers)
        : markers_(markers), radii_(markers.size()), angles_(markers.size()) {}

    void lookFrom(cv::Point2d centre);
    double radius(int i) const { return radii_[asIndex(i)]; }
    double angle(int i);

  private:
    const std::vector<cv::Point2d>& markers_;
    std::vector<double> radii_, angles_;
    cv::Point2d centre_;
};

/// How many markers agree with the hypothesis that two triangles are one. One thread's own storage, so that a
/// hypothesis needs no heap.
class HypothesisScore {
  public:
    explicit HypothesisScore(const Constellation& constellation);

    /// Lays the left triangle on the right one.
    ///
    /// @param round  number of the left triangle.
    /// @return the sum of the costs of the pairs that agree.
    double layOn(std::int64_t round, cv::Point2d leftCentroid, cv::Point2d rightCentroid);

    /// The pairs that agree, ascending left.
    std::vector<CompactPair>& pairs() { return pairs_; }

  private:
    double score();
    bool hasRival(int t, int u, double cost);

    const Constellation& constellation_;
    PolarView left_, right_;
    std::int64_t roundOfLeft_ = 0;  ///< whose triangle `left_` looks from
    std::vector<CompactPair> pairs_;
};

}  // namespace kestrune::constellation
