// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <opencv2/core.hpp>
#include <vector>

#include "MarkerExtractor/stereo/constellation_edges.h"
#include "MarkerExtractor/stereo/hypothesis_score.h"
#include "MarkerExtractor/stereo/ordered_fold.h"

namespace kestrune::constellation {

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

    void collectTriangles(const Triangle& triangle, int k);
    bool isThirdSideAlike(const Triangle& triangle, const SharedEnds& ends) const;
    bool scoreBatch(cv::Point2d leftCentroid);

    const Constellation& constellation_;
    InOrderFold fold_;
    std::int64_t round_ = 0;
    std::int64_t scoreTime_;  ///< bound of the time that a hypothesis takes, ns
    std::vector<std::int32_t> firsts_, seconds_;
    std::vector<cv::Point2d> centroids_;   ///< of the right triangles of a batch
    std::vector<HypothesisScore> scores_;  ///< one for each thread
};

}  // namespace kestrune::constellation
