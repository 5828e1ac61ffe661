// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <opencv2/core.hpp>
#include <span>
#include <utility>
#include <vector>

#include "MarkerExtractor/stereo/index.h"
#include "MarkerExtractor/stereo/marker_edges.h"

namespace kestrune::constellation {

/// What the tests of an edge ask for again and again.
struct EdgeShape {
    std::int32_t first, second;
    double dy;     ///< y of `first` minus y of `second`, px
    double angle;  ///< rad
    bool xShort;   ///< the ends differ so little in x that their order by x means nothing
    bool yShort;
    bool alongRows;
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
        return {candidates_.data() + offsets_[asIndex(i)], candidates_.data() + offsets_[asIndex(i) + 1]};
    }
    std::size_t candidateCount() const { return candidates_.size(); }

    void activate(const std::vector<MarkerMatchRecord>& records);
    void linkCandidates(const Eye& other, std::size_t otherRecords);

  private:
    std::vector<int> offsets_, candidates_;
};

}  // namespace kestrune::constellation
