// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <opencv2/core.hpp>
#include <utility>
#include <vector>

#include "kestrune/MarkerExtractor/calibration_records.h"

namespace kestrune {

/// What the matchers know of one corner: where it is and which corners of the other eye it may be.
struct MarkerMatchRecord {
    double x, y;                                ///< centre, px
    std::vector<int> matches;                   ///< indices of the candidates in the other eye's list
    std::vector<cv::Point2d> samples;           ///< points of the outline that the pair test triangulates, px
    std::vector<Point3_<double>> candidates3d;  ///< in step with `matches`: the point that the candidate gives
    std::vector<double> candidateRadii;         ///< in step with `matches`: its radius in space
    double area;                                ///< of the corner, px^2
};

/// The straight line between two markers of one eye.
struct MarkerEdge {
    std::int32_t first, second;     ///< positions of the ends in the list of markers; `first` is not right of `second`
    const MarkerMatchRecord* from;  ///< record of `first`
    const MarkerMatchRecord* to;    ///< record of `second`
    double length;                  ///< px
    double angle;                   ///< direction from `first` to `second` in the image, rad, -pi/2 to pi/2
};

/// Decides which candidates are the same marker, from the pattern that all markers form together. In a rectified pair
/// the pattern looks nearly alike in both images, so two edges with a common end in the left image have two edges of
/// about the same length and direction in the right one. The triangles that they form are laid on each other by their
/// centroids; how many markers then agree in distance and direction from the centroid is the triangles' score. Left
/// edges are drawn at random from a fixed seed; the best score wins as soon as enough triangles have confirmed it.
/// Pairs that contradict the others are taken out at the end.
///
/// The search runs on OpenMP's default number of threads, and gives the same result for any number.
///
/// @param leftRecords, rightRecords  centres in rectified pixels, `matches` mutual. An entry of `matches` that names no
///                                   record with entries of its own, or a record without a finite centre at either
///                                   end, is passed over.
/// @param edgeLengthTolerance        ratio that lengths may differ by
/// @param edgeAngleTolerance         rad that directions may differ by
/// @param pairs                      replaced: (index of the left record, index of the right one), ascending left.
///                                   Empty without a consensus, and it may be empty with one. Not promised: that a
///                                   right record stands in one pair only.
/// @return whether a consensus was reached; fewer than three markers never reach one.
bool findConstellation(const std::vector<MarkerMatchRecord>& leftRecords,
                       const std::vector<MarkerMatchRecord>& rightRecords, double edgeLengthTolerance,
                       double edgeAngleTolerance, std::vector<std::pair<int, int>>& pairs);

/// The edges between all markers, shortest first; edges of equal length stand in the order of their ends' positions,
/// and those to a marker without a finite centre stand last. The edges point into `active`'s records.
std::vector<MarkerEdge> buildEdges(const std::vector<const MarkerMatchRecord*>& active);

/// Takes out the pairs whose edges to other pairs differ between the eyes in length or direction. Of two pairs that
/// contradict each other the one that fits the undisputed pairs better stays, or both, if they fit equally well.
///
/// @param pairs  positions in the two lists, all within them; what stays keeps its order.
void pruneInconsistentPairs(const std::vector<const MarkerMatchRecord*>& leftActive,
                            const std::vector<const MarkerMatchRecord*>& rightActive,
                            std::vector<std::pair<int, int>>& pairs, double edgeLengthTolerance,
                            double edgeAngleTolerance);

}  // namespace kestrune
