// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <array>
#include <opencv2/core.hpp>
#include <optional>

#include "kestrune/MarkerExtractor/records.h"

namespace kestrune {

/// Index of each sample point of a marker: its centre, its rim in the centre's row, and the extremes of its rim.
enum SamplePoint { kCentre, kRowLeft, kRowRight, kTop, kBottom, kLeftEnd, kRightEnd, kSampleCount };

using Samples = std::array<cv::Point2d, kSampleCount>;  ///< px

/// The sample points of a marker; none if its contour does not give them: the marker then has no partner.
std::optional<Samples> samplePoints(const Corner& corner);

}  // namespace kestrune
