// SPDX-License-Identifier: Apache-2.0
//
// Candidates from the rectified geometry alone: markers in one row band, whose columns give a depth.
#pragma once

#include <opencv2/core.hpp>
#include <optional>
#include <utility>
#include <vector>

#include "MarkerExtractor/stereo/match_settings.h"
#include "MarkerExtractor/stereo/pair_verdicts.h"
#include "kestrune/MarkerExtractor/calibration_records.h"

namespace kestrune {

/// The five entries of Q of `cv::stereoRectify` that turn a disparity into a point, in single precision whatever the
/// matrix holds.
class DisparityMap {
  public:
    /// @param q  4 by 4, `CV_64F` or `CV_32F`.
    explicit DisparityMap(const cv::Mat& q);

    /// Point in the rectified left frame; none where the two rays are parallel. The sums are formed in single
    /// precision.
    std::optional<cv::Vec3d> pointAt(const cv::Point2f& left, const cv::Point2f& right) const;

  private:
    float q03_, q13_, q23_, q32_, q33_;
};

/// Two markers that may be one, by their places in the lists.
struct RowCandidate {
    int left, right;
    cv::Vec3d point;  ///< rough place, rectified left frame
};

/// Pairs of rectified points in one row band whose depth lies in the range, by left index, then by the right point's
/// row, then by right index.
///
/// @param left,right  rectified px.
/// @param bounds      the row band is closed; a bound that is NaN lets nothing pass.
/// @param verdicts    if not null, what became of each pair in a row band is appended.
std::vector<RowCandidate> candidatesInRows(const std::vector<cv::Point2f>& left, const std::vector<cv::Point2f>& right,
                                           const DisparityMap& map, const PlaceBounds& bounds, PairVerdicts* verdicts);

/// The same in two lists.
///
/// @param disparityToDepth  Q of `cv::stereoRectify`, 4 by 4, `CV_64F` or `CV_32F`.
/// @param points            replaced: the rough point of each pair.
std::vector<std::pair<int, int>> rectifiedCandidatePairs(const std::vector<cv::Point2f>& left,
                                                         const std::vector<cv::Point2f>& right,
                                                         const cv::Mat& disparityToDepth,
                                                         std::vector<Point3_<double>>& points, double maxRowDifference,
                                                         double minDepth, double maxDepth);

}  // namespace kestrune
