// SPDX-License-Identifier: Apache-2.0
//
// The steps of matching rectified markers by contour and size, each a function of its inputs alone.
#pragma once

#include <array>
#include <cmath>
#include <opencv2/core.hpp>
#include <optional>
#include <utility>
#include <vector>

#include "MarkerExtractor/stereo/constellation.h"
#include "MarkerExtractor/stereo/match_settings.h"
#include "MarkerExtractor/stereo/pair_verdicts.h"
#include "kestrune/MarkerExtractor/calibration_records.h"
#include "kestrune/MarkerExtractor/records.h"

namespace kestrune {

/// Index of each sample point of a marker.
enum SamplePoint { kCentre, kRowLeft, kRowRight, kTop, kBottom, kLeftEnd, kRightEnd, kSampleCount };

/// The order of a sort that must hold whatever the values are: ascending, what is not a number last.
template <typename T>
bool ascendingNanLast(T a, T b) {
    return a < b || (std::isnan(b) && !std::isnan(a));
}

/// The tests of one call, taken from its arguments.
struct PairTest {
    cv::Mat leftProjection, rightProjection;
    cv::Matx33d fromRectified;  ///< takes a point of the rectified left frame to the frame of the result
    std::vector<double> radii;  ///< ascending, what is not a number last
    double maxRowDifference;
    double minDepth, maxDepth;
    bool radiusScoreGate, looseSizeGate, plainRowGate;
    double sizeTolerance;
    int deviationFactor;
};

/// A marker's size in space: the mean distance of its rim from its centre and the scatter of that distance.
struct MarkerSize {
    double radius, spread;
};

/// A right marker that a left one may belong to.
struct PairCandidate {
    int right;
    Point3_<double> point;
    double radius;
};

/// The seven sample points of a marker, or none if the contour does not give them: the marker then has no partner.
std::vector<cv::Point2d> samplePoints(const Corner& corner);

/// Whether two areas agree within the ratio |tolerance|, exclusive.
bool areasAgree(double left, double right, double tolerance);

/// Whether top, centre and bottom of two markers lie in the same rows, to within `maxRowDifference` (exclusive), and
/// differ in the same sense, where differences below `slack` have none.
bool rowsAgree(const MarkerMatchRecord& left, const MarkerMatchRecord& right, double maxRowDifference, double slack);

/// Size of the marker whose sample points in space are given. The nearest and the farthest of the six rim points are
/// left out.
MarkerSize markerSize(const std::array<cv::Vec3d, kSampleCount>& samples);

/// Whether the size fits one of the nominal radii under the gates of `test`.
bool sizeFits(const MarkerSize& size, const PairTest& test);

/// The whole test of a pair of records that both have samples. Gives the candidate without its index.
std::optional<PairCandidate> testCandidatePair(const MarkerMatchRecord& left, const MarkerMatchRecord& right,
                                               const PairTest& test);

/// The same; what became of the pair goes to `verdict`, without the indices, where one is given.
std::optional<PairCandidate> testCandidatePair(const MarkerMatchRecord& left, const MarkerMatchRecord& right,
                                               const PairTest& test, PairVerdict* verdict);

/// Positions of a record's candidates that are surplus, in the order in which they are marked; one may come twice.
/// Where more than two candidates fit a nominal radius to within `tolerance`, the two about it stay.
///
/// @param candidateRadii  ascending.
/// @param nominalRadii    ascending, what is not a number last.
std::vector<int> surplusPositions(const std::vector<double>& candidateRadii, const std::vector<double>& nominalRadii,
                                  double tolerance);

/// Erases candidates of a record. Each position counts in the list as the erasures before it, in ascending order, have
/// left it; one that lies beyond its end is skipped, and one that comes twice is erased once.
void eraseCandidates(MarkerMatchRecord& record, std::vector<int> positions);

/// Drops the surplus candidates of all records, on both sides of each pair.
void trimCandidates(std::vector<MarkerMatchRecord>& leftRecords, std::vector<MarkerMatchRecord>& rightRecords,
                    const std::vector<double>& nominalRadii, double tolerance);

/// Pairs of a left record with one candidate and a right record with one candidate, left ascending; their points are
/// appended.
std::vector<std::pair<int, int>> uniquePairs(const std::vector<MarkerMatchRecord>& leftRecords,
                                             const std::vector<MarkerMatchRecord>& rightRecords,
                                             std::vector<Point3_<double>>& points);

/// `getStereoRectifiedMarker3dPoints`; what became of each pair goes to `verdicts`, where one is given.
///
/// @param test  `fromRectified` is set from `rotation`, `radii` may stand in any order.
std::vector<std::pair<int, int>> matchRectifiedCorners(const std::vector<Corner>& leftCorners,
                                                       const std::vector<Corner>& rightCorners, PairTest test,
                                                       const cv::Mat& rotation, EdgeTolerances tolerances,
                                                       std::vector<Point3_<double>>& points, PairVerdicts* verdicts);

/// Position of a partner in a record's `matches`, which hold each partner once; the size of the list if it is not
/// there.
std::size_t positionOf(const MarkerMatchRecord& record, int partner);

}  // namespace kestrune
