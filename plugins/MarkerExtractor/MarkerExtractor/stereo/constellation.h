// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <utility>
#include <vector>

#include "MarkerExtractor/stereo/constellation_pruning.h"
#include "MarkerExtractor/stereo/marker_edges.h"
#include "MarkerExtractor/stereo/match_record.h"

namespace kestrune {

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

}  // namespace kestrune
