// SPDX-License-Identifier: Apache-2.0
//
// Matches rectified markers of which nothing is known but their contours and the nominal radii: by rows and size, then
// by the constellation, then by what is unambiguous. The operation that a host calls is
// `getStereoRectifiedMarker3dPoints`.
#pragma once

#include <vector>

#include "MarkerExtractor/stereo/match_settings.h"
#include "MarkerExtractor/stereo/pair_gates.h"
#include "MarkerExtractor/stereo/pair_verdicts.h"
#include "MarkerExtractor/stereo/placed_pair.h"
#include "MarkerExtractor/stereo/rectified_marker.h"
#include "kestrune/MarkerExtractor/stereo.h"

namespace kestrune {

/// Whether there are markers in both lists and a nominal radius above 0. Without, one warning line tells which.
bool canMatchRectified(const std::vector<Corner>& leftCorners, const std::vector<Corner>& rightCorners,
                       const MatchSettings& settings);

/// The matrices of a call.
///
/// @throws cv::Exception that names the first one that is not of the size and type that
///         `getStereoRectifiedMarker3dPoints` asks for.
RectifiedRig rectifiedRigOf(const cv::Mat& rotation, const cv::Mat& leftProjection, const cv::Mat& rightProjection);

/// The pairs, by left index.
///
/// @param leftCorners,rightCorners  rectified px, as `canMatchRectified` lets them pass.
/// @param verdicts  if not null, what became of each pair.
std::vector<PlacedPair> matchRectified(const std::vector<Corner>& leftCorners, const std::vector<Corner>& rightCorners,
                                       const RectifiedRig& rig, const RectifiedMatchSettings& settings,
                                       PairVerdicts* verdicts);

}  // namespace kestrune
