// SPDX-License-Identifier: Apache-2.0
//
// What never became a candidate, by cause, and what other settings would find: a marker that a front end passes over
// has no outline that a table of candidates could show.
#pragma once

#include <kestrune/MarkerExtractor.h>

#include <iosfwd>
#include <opencv2/core.hpp>
#include <string>
#include <vector>

#include "markers.h"

namespace kestrune::measure {

/// A blob, contour or edge that the front end did not deliver.
struct Dropped {
    std::string gate;    ///< what was met, and what it was dropped for
    double measured;     ///< NaN where nothing is
    std::string wanted;  ///< with the settings' names
    cv::Rect2d box;      ///< px of the full image, with the lens's distortion
};

/// Counts by cause with the range that was met, most first; nothing for an empty list.
std::string droppedTable(const std::vector<Dropped>& dropped);

/// Rows for the table of candidates, without a number.
void writeDroppedRows(std::ostream& stream, const std::string& image, const std::vector<Dropped>& dropped);

/// What a changed setting does to the markers of an image, all else being the same.
struct Trial {
    std::string change;  ///< "thresholdC -4 instead of -8"
    std::size_t more;    ///< markers that are not there now
    std::size_t fewer;   ///< of those that are there now
};

/// Changes the settings that decide what the front end of the path sees, one at a time, and tells of each that would
/// add markers the change that adds most, of equal ones the smallest. All gates stay as they are.
///
/// @param markers  those of the image as it is; the same goes for the functions below.
/// @throws cv::Exception  never for a change that the path refuses.
std::vector<Trial> tryOtherSettings(CircleMarkerExtractor& extractor, const cv::Mat& image, int eye,
                                    const Camera& camera, const Settings& settings, const std::vector<Marker>& markers);

/// Nothing for an empty list.
std::string trialTable(const std::vector<Trial>& trials);

/// Where hardly anything of the polarity that the path looks for is round, but much of the other one: what to do. Else
/// nothing.
std::string polarityHint(CircleMarkerExtractor& extractor, const cv::Mat& image, int eye, const Camera& camera,
                         const Settings& settings, const std::vector<Marker>& markers, bool inverted);

}  // namespace kestrune::measure
