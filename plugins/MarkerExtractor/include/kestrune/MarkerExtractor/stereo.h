// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <opencv2/core.hpp>
#include <utility>
#include <vector>

#include "kestrune/MarkerExtractor/calibration_records.h"
#include "kestrune/MarkerExtractor/export.h"
#include "kestrune/MarkerExtractor/records.h"

namespace kestrune {

/// Matches the markers of a rectified pair of images and places them in space, when nothing is known of a marker but
/// its contour and the nominal radii of the marker set.
///
/// Every left marker is tested against every right one: the same rows, a like area, and, from seven points of the two
/// contours, a depth and a size in space that fit a nominal radius. Markers that come through with several partners are
/// resolved by the shape of the whole constellation; if that gives no answer, only partners that are each other's one
/// candidate are kept. Needs no conic. A consensus is no proof: a regular pattern at a pitch p along the base b, at a
/// depth z, fits a column on as well, unless the depth range leaves out z b / (b + p) and z b / (b - p). On an object
/// with depth it loses about half of the right pairs at tolerances of 0.3 and 0.2; both at 0 mean no consensus, and
/// there give more right and fewer wrong pairs. Figures: docs/stereo.md. May be called from many threads at once. The
/// result is the same, bit for bit, for any number of threads.
///
/// Bounds are compared as IEEE numbers: a depth bound or `sizeTolerance` that is NaN fits nothing, and neither
/// does such a `maxRowDifference`, but for `plainRowGate`, where it refuses nothing. An `edgeAngleTolerance` that is
/// NaN refuses no direction.
///
/// @param leftCorners, rightCorners  rectified markers, px; read are `x`, `y`, `area` and `contour`. Not changed. A
///                         marker gets no partner if its contour has fewer than three points, holds a coordinate that
///                         is not finite, or does not lie both above and below the centre's row on either side of the
///                         centre.
/// @param markerRadii      nominal radii, unit of the points; at least one must be above 0. Values that are not
///                         positive stay in the list and are compared like the others.
/// @param points           one point is appended for each pair, in the order of the pairs; what is there stays.
/// @param rotation         3 by 3, `CV_64FC1`. Points are multiplied by its inverse (zeros if it has none) before they
///                         are stored: the identity leaves them in the rectified left camera frame, in the unit of the
///                         projections' baseline.
/// @param leftProjection, rightProjection  3 by 4, `CV_64FC1` or `CV_32FC1`: P1, P2 of the rectified pair.
/// @param maxRowDifference rows by which the two markers of a pair may differ, px, exclusive.
/// @param minDepth, maxDepth  range of the centre's z in the rectified left camera frame, exclusive, unit of the
///                         points. Depths that are not positive are refused in any case.
/// @param radiusScoreGate, looseSizeGate, plainRowGate  choose the tests. With `plainRowGate` only the rows of the
///                         centres are compared; else those of top and bottom as well, with a slack of 1 px, or with
///                         `looseSizeGate` of max(2 px, half of `maxRowDifference`). The radius R measured in space,
///                         with s its standard deviation over the contour, must pass this test for one of the nominal
///                         radii N, where t = `sizeTolerance`, d = `deviationFactor`, q = (|N - R| / N + s) / t:
///
///                         | plainRow | looseSize | radiusScore | test                                   |
///                         |----------|-----------|-------------|----------------------------------------|
///                         | true     | any       | false       | N (1 - t / 2) < R < 1.8 N              |
///                         | true     | any       | true        | N (1 - t / 2) < R < 1.95 N             |
///                         | false    | true      | true        | N (1 - t / 2) <= R <= 1.95 N and q < d |
///                         | false    | true      | false       | N (1 - t / 2) < R < 1.8 N and s < d t  |
///                         | false    | false     | true        | q < d                                  |
///                         | false    | false     | false       | N - N t < R < N + N t and s < d t      |
/// @param sizeTolerance    ratio by which areas and radii may differ, exclusive: 0 lets nothing pass. Where the
///                         constellation gives no answer it is also a difference of radii, unit of the points.
/// @param deviationFactor  multiple of `sizeTolerance` in the table.
/// @param edgeLengthTolerance  ratio by which distances may differ between the two constellations.
/// @param edgeAngleTolerance   radians by which directions may differ between them.
/// @return                 (left index, right index), left ascending. Empty, after one warning line on standard output,
///                         if a list of corners is empty or no radius is above 0; empty and silent if nothing fits.
/// @throws cv::Exception   `cv::Error::StsBadArg`, naming the matrix, if `rotation` or a projection is not of the size
///                         and type above; nothing has been written then.
KESTRUNE_API std::vector<std::pair<int, int>> getStereoRectifiedMarker3dPoints(
    std::vector<Corner>& leftCorners, std::vector<Corner>& rightCorners, std::vector<double> markerRadii,
    std::vector<Point3_<double>>& points, cv::Mat& rotation, cv::Mat& leftProjection, cv::Mat& rightProjection,
    double maxRowDifference, double minDepth, double maxDepth, bool radiusScoreGate, bool looseSizeGate,
    double sizeTolerance, int deviationFactor, bool plainRowGate, double edgeLengthTolerance,
    double edgeAngleTolerance);

/// Matches markers of which only the centres are known, in plain images, and places them in space: a marker must lie
/// within 1.5 px (exclusive) of the epipolar line of its partner. Size, shape and rows are not looked at.
///
/// Markers that are each other's one candidate are taken as sure; their depth is not tested. A marker of the shorter
/// list (the left one of two equally long) with several candidates keeps those that put it in front of the left camera,
/// and takes the one whose distances to the sure markers differ least between the images. Any pair can be wrong: a sure
/// one where the true partner is missing in one image and another marker lies on its line, a settled one more often,
/// and one marker of the longer list may stand in several. In generated scenes about every second one held a wrong
/// pair; to drop pairs that use a marker twice, or whose depth the object cannot have, halves that. The position of the
/// best among the candidates kept is then taken as one among all candidates: behind a candidate that was thrown out,
/// another marker is named than the one chosen. A marker with one candidate that has several is in no pair.
///
/// May be called from many threads at once. The result is the same, bit for bit, for any number of threads.
///
/// @param leftCorners, rightCorners  read are `x` and `y`, px free of distortion; a centre that is not finite has no
///                      candidate. Written for each pair: `matched`, and `position` in the left camera frame on the
///                      left, in the right camera frame on the right, unit of the translation. Nothing is reset.
/// @param relativePose  [R, T], 3 by 4, `CV_64FC1`: X in the left camera frame is R X + T in the right one.
/// @param leftCamera, rightCamera  3 by 3, `CV_64FC1`, of which fx, fy, cx and cy are read.
/// @param fundamental   3 by 3, `CV_64FC1` or `CV_32FC1`, of any scale: x'^T F x = 0 for x left and x' right.
/// @param points        replaced by one point for each pair, in the left camera frame; kept if there is no pair.
/// @return              (left index, right index): the sure pairs, then the settled ones, each ascending in the
///                      shorter list. Empty, after one warning line on standard output, if a list is empty; empty and
///                      silent if nothing fits.
/// @throws cv::Exception `cv::Error::StsBadArg`, naming the matrix, if one is not of the size and type above, with
///                      nothing written.
KESTRUNE_API std::vector<std::pair<int, int>> getStereoMarker3dPoints(
    std::vector<Corner>& leftCorners, std::vector<Corner>& rightCorners, const cv::Mat& relativePose,
    const cv::Mat& leftCamera, const cv::Mat& rightCamera, const cv::Mat& fundamental,
    std::vector<Point3_<double>>& points);

}  // namespace kestrune
