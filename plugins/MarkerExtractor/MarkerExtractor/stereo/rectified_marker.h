// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <algorithm>
#include <opencv2/core.hpp>
#include <optional>
#include <vector>

#include "MarkerExtractor/stereo/sample_points.h"

namespace kestrune {

/// A marker of the other eye that a marker may be.
struct PairCandidate {
    int partner;      ///< place in the other list
    cv::Vec3d point;  ///< centre in space, in the frame of the result
    double radius;    ///< size in space
};

/// A marker of one eye, in rectified px.
struct RectifiedMarker {
    cv::Point2d centre;
    double area;                            ///< px^2
    std::optional<Samples> samples;         ///< of the outline; without them there is no candidate
    std::vector<PairCandidate> candidates;  ///< each partner once
};

/// Position of a partner among the candidates of a marker; their number if it is not there.
inline std::size_t positionOf(const RectifiedMarker& marker, int partner) {
    const auto found = std::ranges::find(marker.candidates, partner, &PairCandidate::partner);
    return static_cast<std::size_t>(found - marker.candidates.begin());
}

}  // namespace kestrune
