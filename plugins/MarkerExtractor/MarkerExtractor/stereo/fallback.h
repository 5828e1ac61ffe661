// SPDX-License-Identifier: Apache-2.0
//
// What is left to do when the constellation as a whole gives no answer: drop the candidates that fit their nominal
// radius worst, and keep the pairs that are then the only ones of both their markers.
#pragma once

#include <vector>

#include "MarkerExtractor/stereo/placed_pair.h"
#include "MarkerExtractor/stereo/rectified_marker.h"

namespace kestrune {

/// Positions of candidates that are surplus, in the order in which they are marked; one may come twice. Where more than
/// two candidates fit a nominal radius to within `tolerance`, the two about it stay.
///
/// @param candidates    ascending by radius.
/// @param nominalRadii  ascending, NaN last.
std::vector<int> surplusPositions(const std::vector<PairCandidate>& candidates, const std::vector<double>& nominalRadii,
                                  double tolerance);

/// Erases candidates. Each position counts in the list as the erasures before it, in ascending order, have left it; one
/// that lies beyond its end is skipped, and one that comes twice is erased once.
void eraseCandidates(std::vector<PairCandidate>& candidates, std::vector<int> positions);

/// Drops the surplus candidates of all markers, on both sides of each pair.
void trimCandidates(std::vector<RectifiedMarker>& leftMarkers, std::vector<RectifiedMarker>& rightMarkers,
                    const std::vector<double>& nominalRadii, double tolerance);

/// Pairs of a left marker with one candidate and a right marker with one candidate, left ascending.
std::vector<PlacedPair> uniquePairs(const std::vector<RectifiedMarker>& leftMarkers,
                                    const std::vector<RectifiedMarker>& rightMarkers);

}  // namespace kestrune
