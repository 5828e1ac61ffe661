// SPDX-License-Identifier: Apache-2.0
//
// What the matcher of conics takes from the calibration: checked first, then copied into matrices of fixed size.
#pragma once

#include <Eigen/Core>
#include <opencv2/core.hpp>
#include <optional>
#include <vector>

#include "MarkerExtractor/stereo/row_candidates.h"
#include "kestrune/MarkerExtractor.h"

namespace kestrune {

/// The members that the matcher reads are all there and of the right size and type.
///
/// @param cornersRectified  whether the markers are in rectified pixels already, which asks for other members.
/// @throws cv::Exception that names the first one that is not.
void requireConicCalibration(const CircleMarkerExtractor& extractor, bool cornersRectified);

/// Two cameras, in the frame that the markers are seen in: the left camera's, or that of the rectified left one.
struct ConicRig {
    std::optional<cv::Matx33d> fundamental;  ///< none for a rectified pair without baseline
    cv::Matx34d leftProjection, rightProjection;
    DisparityMap disparityMap;
    cv::Matx33d fromRectified;                ///< from the rectified left frame to that of the result
    cv::Matx34d pose;                         ///< from the left frame to the right one
    cv::Matx33d turnBack;                     ///< directions from the right frame to the left one
    Eigen::Matrix3d leftCamera, rightCamera;  ///< of `CircleMarkerExtractor::SetTriangulationIntrinsicMatrix`
};

/// @param extractor  with a calibration that `requireConicCalibration` lets pass. Its members `triangulationA` ..
///                   `triangulationD` are filled, if they are not yet.
ConicRig takeConicRig(CircleMarkerExtractor& extractor, bool cornersRectified);

/// Centres of the markers of both eyes in rectified px, in the single precision of the candidate search.
struct RectifiedCentres {
    std::vector<cv::Point2f> left, right;
};

/// @param left,right  neither of them empty.
RectifiedCentres rectifiedCentres(const std::vector<Corner>& left, const std::vector<Corner>& right,
                                  const CircleMarkerExtractor& extractor, bool cornersRectified);

}  // namespace kestrune
