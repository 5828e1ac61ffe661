// SPDX-License-Identifier: Apache-2.0
//
// Why has this marker no partner? Every marker of an exposure that is in no pair, with the test that ended its best
// candidate, as a sentence, as a table, as CSV and as a picture. Of a match by probability, table, CSV and picture are
// those of trust_explanation.h.
#pragma once

#include <array>
#include <iosfwd>
#include <opencv2/core.hpp>
#include <string>
#include <vector>

#include <kestrune/MarkerMetrology.h>
#include "MarkerExtractor/stereo/from_images.h"

namespace kestrune::measure {

struct StereoResult;

/// A marker that is in no pair, and its candidate that got furthest; of those that got equally far, the nearest miss.
struct UnmatchedMarker {
    int number;           ///< place among the markers of its eye
    cv::RotatedRect rim;  ///< undistorted px (rectified px with `cornersRectified`)
    PairVerdict verdict;
    int partner;  ///< number of the candidate in the other eye; -1: none
    /// Of a match by probability, what became of it, in place of the verdict's test: "ambiguous", where `measured` is
    /// the probability of the candidate, or "single", where it is that only this eye sees the marker.
    const char* standing = nullptr;
};

/// The name of the test that ended the marker's best candidate.
const char* testOf(const UnmatchedMarker& marker);

/// The markers of one eye that are in no pair.
///
/// @param rims  of all its markers.
std::vector<UnmatchedMarker> unmatchedOf(const ExplainedMatch& match, std::size_t eye,
                                         const std::vector<cv::RotatedRect>& rims);

/// What ended most of the poorer eye's markers, and the values met; empty if all are paired.
std::string chiefObstacle(const StereoResult& result, const CicrleConfigs& configs);

/// Whether most of the poorer eye's markers ended at a test that a wrong rig fails, and not at one of the markers' size
/// or of their pattern.
bool blamesTheRig(const StereoResult& result);

/// All markers without a partner but those of tests that ended more than a reader can look at; then the counts.
std::string pairExplanationTable(const StereoResult& result, const CicrleConfigs& configs);

/// All markers of both eyes.
void writePairExplanationCsv(std::ostream& stream, const StereoResult& result, const CicrleConfigs& configs);

/// Both eyes side by side: pairs green under their number, all else in the colour of its test with # and its number.
///
/// @param images  those in whose pixels the markers are.
cv::Mat drawPairExplanation(const std::array<cv::Mat, 2>& images, const StereoResult& result, const std::string& title);

}  // namespace kestrune::measure
