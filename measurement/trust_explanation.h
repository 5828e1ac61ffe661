// SPDX-License-Identifier: Apache-2.0
//
// Why is this pair sure, and that one not? What a match by probability weighed, as a table, as CSV and as a picture.
#pragma once

#include <array>
#include <iosfwd>
#include <opencv2/core.hpp>
#include <string>

#include "stereo_result.h"

namespace kestrune::measure {

/// All pairs with their cues, those in doubt with their rivals, the markers that one eye alone sees, and the counts.
/// What there is more of than a reader can look at is only counted.
std::string trustTable(const StereoResult& result);

/// The columns of `writePairRow`.
std::string pairRowHeader();

/// One pair as a row: what it is, its numbers, places, probability and cues, and what would decide.
///
/// @param standing  "sure", "ambiguous" or "rival".
/// @param decider   null: nothing is to be decided.
void writePairRow(std::ostream& stream, const char* standing, const StereoMarker& marker, const Decider* decider);

/// The pairs in doubt, each before its rivals.
///
/// @param head  what each row begins with; the pair's number among those in doubt follows.
void writeAmbiguousRows(std::ostream& stream, const std::string& head, const StereoResult& result);

/// Sure pairs, those in doubt with their rivals, and single markers, after a header row.
void writeTrustCsv(std::ostream& stream, const StereoResult& result);

/// Both eyes side by side: sure pairs green under their numbers, all others with # and their number; lines join those
/// that may be one.
///
/// @param images  those in whose pixels the markers are.
cv::Mat drawTrust(const std::array<cv::Mat, 2>& images, const StereoResult& result, const std::string& title);

}  // namespace kestrune::measure
