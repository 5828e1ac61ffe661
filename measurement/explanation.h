// SPDX-License-Identifier: Apache-2.0
//
// Why was this no marker? Every candidate that the front end of a path delivered, with the gate that refused it, as a
// table, as CSV and as a picture.
#pragma once

#include <kestrune/MarkerExtractor.h>

#include <iosfwd>
#include <opencv2/core.hpp>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "dropped.h"
#include "markers.h"

namespace kestrune::measure {

// Of one gate: beyond this a table is scrolled past, and labels in a picture cover each other. It is always specks.
constexpr std::size_t kMostListed = 200;

/// A line without the blanks behind its last field.
std::string trimmed(std::string line);

struct Candidate {
    int number;                        ///< place among all that were delivered
    std::vector<cv::Point2f> contour;  ///< px of the full image, with the lens's distortion
    cv::Rect2d box;                    ///< about the contour
    std::optional<Rim> rim;            ///< last fit, as `findMarkers` shows it; none for a candidate refused before
    std::string gate;                  ///< empty: a marker
    double measured;                   ///< in the units of the settings; NaN where the gate measures nothing
    std::string wanted;                ///< what the gate asks for, with the settings' names
    int marker;                        ///< id of the marker that it is, or that took its place; -1: none
};

/// What became of the candidates, alike ones together.
struct GateCount {
    std::string gate;  ///< empty: markers
    std::size_t count;
    double least, largest;  ///< measured; NaN where the gate measures nothing
    std::string wanted;
};

/// The candidates of one image in the order of the front end; the markers among them are those of `findMarkers`.
///
/// @param dropped  if not null, appended to: what the front end did not deliver.
/// @throws cv::Exception  from the library.
std::vector<Candidate> explainMarkers(CircleMarkerExtractor& extractor, const cv::Mat& image, int eye,
                                      const Camera& camera, const Settings& settings,
                                      std::vector<Dropped>* dropped = nullptr);

/// The markers first, if only to say that there are none, then the gates, those that refused most before the others.
std::vector<GateCount> countGates(const std::vector<Candidate>& candidates);

/// The counts as a table; those that were too many to list are marked.
std::string countTable(const std::vector<GateCount>& counts, const std::set<std::string>& unlisted = {});

/// All candidates but those of gates that refused more than a reader can look at; then the counts.
std::string explanationTable(const std::vector<Candidate>& candidates);

/// All candidates; the header row comes first.
void writeExplanationCsv(std::ostream& stream, const std::string& image, const std::vector<Candidate>& candidates);

/// The image as it was taken with the contours of all candidates, and the boxes of what was dropped before where there
/// is something to look at. Markers are labelled with their id, what was refused with # and its number, but for gates
/// that refused more than could be read, and for contours that coincide with a marker's.
cv::Mat drawExplanation(const cv::Mat& image, const std::vector<Candidate>& candidates, const std::string& title,
                        const std::vector<Dropped>& dropped = {});

}  // namespace kestrune::measure
