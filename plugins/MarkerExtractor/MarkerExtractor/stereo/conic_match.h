// SPDX-License-Identifier: Apache-2.0
//
// Matches markers that carry a fitted conic. A marker is a flat circle, so the conic of one eye and a rough distance
// fix a circle in space up to a choice of two normals. Candidates come from the rectified geometry (rows and depth);
// both eyes' circles of a candidate are compared, mutual best matches stay, and each is triangulated at the true
// centres: the centre of a circle does not project to the centre of its ellipse.
#pragma once

#include <Eigen/Core>
#include <opencv2/core.hpp>
#include <utility>
#include <vector>

#include "MarkerExtractor/stereo/pair_verdicts.h"
#include "kestrune/MarkerExtractor.h"

namespace kestrune {

/// A circle in space as one eye sees it.
struct CircleSolution {
    double radius;  ///< unit of the point; NaN for a conic that is no ellipse
    std::vector<cv::Point3d>
        normals;  ///< the two possible unit normals, towards the camera; none if there is no solution
};

/// Circle whose image is the corner's conic and whose centre is as far away as `point`.
///
/// With C the conic's matrix and K the camera's, the eigenvalues e0 < 0 < e1 <= e2 and unit eigenvectors u0, u1, u2 of
/// (K^T C K)^-1 give the radius |point| sqrt(e2 / -e0) and the normals (u1 +- s u0) x u2 with s = sqrt((e2 - e1) / e1);
/// the centre with normal n projects to (K^T C)^-1 n. After Y. Zheng, W. Ma, Y. Liu, "Another way of looking at
/// monocular circle pose estimation" (2008).
///
/// @param camera   K, px.
/// @param point    rough centre in the camera's frame; only its length and the side that it lies on count.
/// @param corner   `conic` must be filled.
/// @param centres  result, px: the projected centre for each normal; empty if there is no solution.
/// @throws std::runtime_error "Eigen decomposition failed." for a conic that is not finite, and if the eigen solver
///         does not converge. A finite one that is a point, or consists of lines, has no solution.
CircleSolution solveCirclePose(const Eigen::Matrix3d& camera, const Point3_<double>& point, const Corner& corner,
                               std::vector<cv::Point2f>& centres);

/// First-order squared distance of a pair from its epipolar constraint, px^2:
/// (x'^T F x)^2 / ((F x)_0^2 + (F x)_1^2 + (F^T x')_0^2 + (F^T x')_1^2). P. Sampson, 1982.
///
/// @param fundamental  3 by 3, `CV_64F`.
/// @throws cv::Exception for a matrix that cannot be multiplied, as an empty one.
double sampsonDistance(const cv::Mat& fundamental, const cv::Point2f& left, const cv::Point2f& right);

/// Pairs of rectified points in one row band whose depth lies in a range.
///
/// @param left,right        rectified px.
/// @param disparityToDepth  Q of `cv::stereoRectify`, 4 by 4, `CV_64F` or `CV_32F`; read in single precision.
/// @param points            result: the rough point of each pair, rectified left frame.
/// @param maxRowDifference  px, inclusive.
/// @param minDepth,maxDepth unit of the poses, exclusive; a bound that is not a number lets nothing pass.
/// @return                  (left, right) indices by left index, then by the right point's row, then by right index.
std::vector<std::pair<int, int>> rectifiedCandidatePairs(const std::vector<cv::Point2f>& left,
                                                         const std::vector<cv::Point2f>& right,
                                                         const cv::Mat& disparityToDepth,
                                                         std::vector<Point3_<double>>& points, double maxRowDifference,
                                                         double minDepth, double maxDepth);

/// The same; what became of each pair in a row band goes to `verdicts`, where one is given.
std::vector<std::pair<int, int>> rectifiedCandidatePairs(const std::vector<cv::Point2f>& left,
                                                         const std::vector<cv::Point2f>& right,
                                                         const cv::Mat& disparityToDepth,
                                                         std::vector<Point3_<double>>& points, double maxRowDifference,
                                                         double minDepth, double maxDepth, PairVerdicts* verdicts);

/// The whole matcher. `pairs`, `points`, `normals` and `radii` are replaced and in step; `x` and `y` of the corners
/// that are matched move to the true centres.
///
/// @param leftCorners,rightCorners  undistorted px (rectified px with `configs.cornersRectified`), `conic` filled.
/// @param pairs    (left, right) indices, by left index.
/// @param points   in the frame of the left projection: left camera, or rectified left camera with `cornersRectified`.
///                 Their precision is that of a float.
/// @param normals  unit, in the frame of the points.
/// @param radii    mean of the two eyes.
/// @param configs  read are `cornersRectified`, `maxRowDifference`, `minDepth`, `maxDepth`, `markerRadii`,
///                 `sizeTolerance`, `minRadiusRatio`. No `markerRadii` lets every size pass.
/// @throws std::runtime_error from `solveCirclePose`; cv::Exception for calibration members that are missing or of
/// wrong
///                 size or type, before anything is written.
void matchConicCorners(std::vector<Corner>& leftCorners, std::vector<Corner>& rightCorners,
                       std::vector<std::pair<int, int>>& pairs, std::vector<Point3_<double>>& points,
                       std::vector<Point3_<double>>& normals, std::vector<double>& radii,
                       CircleMarkerExtractor& extractor, const CicrleConfigs& configs);

/// What `matchConicCorners` delivers, in step.
struct ConicMatches {
    std::vector<std::pair<int, int>> pairs;
    std::vector<Point3_<double>> points, normals;
    std::vector<double> radii;
};

/// The same; what became of each pair goes to `verdicts`, where one is given.
ConicMatches pairConicCorners(std::vector<Corner>& leftCorners, std::vector<Corner>& rightCorners,
                              CircleMarkerExtractor& extractor, const CicrleConfigs& configs, PairVerdicts* verdicts);

/// The calibration members that `matchConicCorners` reads, or the exception that names the first one that is not there.
void requireConicCalibration(const CircleMarkerExtractor& extractor, bool cornersRectified);

}  // namespace kestrune
