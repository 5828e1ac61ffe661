// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <array>
#include <opencv2/core.hpp>
#include <optional>
#include <vector>

#include "MarkerExtractor/stereo/disc_pair.h"

namespace kestrune {

/// Best candidate of each marker so far. Each pair of markers is offered once.
class MutualBest {
  public:
    MutualBest(std::size_t leftCount, std::size_t rightCount) : left_(leftCount), right_(rightCount) {}

    /// A better candidate frees the partners of both markers, so that a later one can claim them. An exact tie takes
    /// the record without that, and keeps the centres that are there.
    ///
    /// @param candidate  with discs.
    void offer(const DiscCandidate& candidate);

    /// Projected centres of the disc in both images.
    struct Centres {
        cv::Point2f left, right;
    };
    /// Of a candidate that is the best of both its markers; none of any other. One that took its record by a tie at
    /// score 0, before any other had left centres, is no match.
    std::optional<Centres> centresOf(const DiscCandidate& candidate) const;

  private:
    static constexpr int kNobody = -1;
    struct Marker {
        int partner = kNobody;
        double score = 0.0;
        std::optional<std::array<cv::Point2f, 2>> centres;  ///< of the last candidate that was better

        void free() {
            partner = kNobody;
            score = 0.0;
        }
    };
    std::vector<Marker> left_, right_;
};

}  // namespace kestrune
