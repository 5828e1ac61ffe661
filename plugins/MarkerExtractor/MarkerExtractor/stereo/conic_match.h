// SPDX-License-Identifier: Apache-2.0
//
// Matches markers that carry a fitted conic. A marker is a flat circle, so the conic of one eye and a rough distance
// fix a circle in space up to a choice of two normals. Candidates come from the rectified geometry (rows and depth);
// both eyes' circles of a candidate are compared, mutual best matches stay, and each is triangulated at the true
// centres: the centre of a circle does not project to the centre of its ellipse.
#pragma once

#include <opencv2/core.hpp>
#include <utility>
#include <vector>

#include "MarkerExtractor/stereo/circle_pose.h"
#include "MarkerExtractor/stereo/conic_rig.h"
#include "MarkerExtractor/stereo/epipolar.h"
#include "MarkerExtractor/stereo/match_settings.h"
#include "MarkerExtractor/stereo/pair_verdicts.h"
#include "MarkerExtractor/stereo/placed_pair.h"
#include "MarkerExtractor/stereo/row_candidates.h"
#include "kestrune/MarkerExtractor.h"

namespace kestrune {

/// The matches by left index; `x` and `y` of the markers that are matched move to the true centres.
///
/// @param leftCorners,rightCorners  undistorted px (rectified px with `cornersRectified`), `conic` filled.
/// @param extractor  with a calibration that `requireConicCalibration` lets pass.
/// @param verdicts   if not null, what became of each pair.
/// @throws std::runtime_error from `circlePose`, before anything but the extractor is written.
std::vector<DiscMatch> matchDiscs(std::vector<Corner>& leftCorners, std::vector<Corner>& rightCorners,
                                  CircleMarkerExtractor& extractor, bool cornersRectified,
                                  const ConicMatchSettings& settings, PairVerdicts* verdicts);

/// The same in lists, which are replaced and in step.
///
/// @param pairs    (left, right) indices.
/// @param configs  read are `cornersRectified`, `maxRowDifference`, `minDepth`, `maxDepth`, `markerRadii`,
///                 `sizeTolerance`, `minRadiusRatio`. No `markerRadii` lets every size pass.
/// @throws std::runtime_error from `circlePose`; cv::Exception for calibration members that are missing or of wrong
///                 size or type, before anything is written.
void matchConicCorners(std::vector<Corner>& leftCorners, std::vector<Corner>& rightCorners,
                       std::vector<std::pair<int, int>>& pairs, std::vector<Point3_<double>>& points,
                       std::vector<Point3_<double>>& normals, std::vector<double>& radii,
                       CircleMarkerExtractor& extractor, const CicrleConfigs& configs);

}  // namespace kestrune
