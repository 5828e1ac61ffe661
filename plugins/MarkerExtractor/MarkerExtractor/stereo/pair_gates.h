// SPDX-License-Identifier: Apache-2.0
//
// Can these two rectified markers be one? By their areas, their rows, and the depth and size in space that their
// outlines give.
#pragma once

#include <opencv2/core.hpp>
#include <optional>

#include "MarkerExtractor/stereo/match_settings.h"
#include "MarkerExtractor/stereo/pair_verdicts.h"
#include "MarkerExtractor/stereo/rectified_marker.h"
#include "MarkerExtractor/stereo/size_gate.h"

namespace kestrune {

/// The cameras of a rectified pair.
struct RectifiedRig {
    cv::Matx34d leftProjection, rightProjection;
    cv::Matx33d toResult;  ///< from the rectified left frame to that of the result
};

/// Whether two areas agree within the ratio |tolerance|, exclusive.
bool areasAgree(double left, double right, double tolerance);

/// Whether top, centre and bottom of two markers lie in the same rows, to within `maxRowDifference` (exclusive), and
/// differ in the same sense, where differences below `slack` have none.
bool rowsAgree(const Samples& left, const Samples& right, double maxRowDifference, double slack);

/// The gates of one call. Markers without samples are not to be asked about.
class PairGates {
  public:
    PairGates(const RectifiedRig& rig, const RectifiedMatchSettings& settings);

    /// What makes the right marker a candidate of the left one, without its place in the list; nothing if a gate
    /// refuses the pair.
    std::optional<PairCandidate> candidateOf(const RectifiedMarker& left, const RectifiedMarker& right) const;
    /// The gate that refuses a pair which is no candidate, without the places in the lists.
    PairVerdict refusal(const RectifiedMarker& left, const RectifiedMarker& right) const;

    const SizeGate& size() const { return size_; }

  private:
    bool arePlacesAlike(const RectifiedMarker& left, const RectifiedMarker& right) const;
    PairVerdict refusalOfPlaces(const RectifiedMarker& left, const RectifiedMarker& right) const;
    /// Places `kCount` samples from `kFirst` on in space.
    template <std::size_t kFirst, std::size_t kCount>
    void triangulate(const RectifiedMarker& left, const RectifiedMarker& right, SamplesInSpace& samples) const;
    bool isDepthInRange(double depth) const {
        return depth > 0.0 && depth > place_.minDepth && depth < place_.maxDepth;
    }

    RectifiedRig rig_;
    SizeGate size_;
    PlaceBounds place_;
    double areaTolerance_;
    bool comparesCentresOnly_;
    double rowSlack_;
};

}  // namespace kestrune
