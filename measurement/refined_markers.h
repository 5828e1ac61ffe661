// SPDX-License-Identifier: Apache-2.0
//
// Markers measured again on the grey levels of the image as it was read, with their uncertainty: what the program's
// tables and Python's hold of it.
#pragma once

#include <opencv2/core.hpp>
#include <optional>
#include <string>
#include <vector>

#include <kestrune/MarkerMetrology.h>
#include "grey_range.h"
#include "markers.h"

namespace kestrune::measure {

/// An image with all the bits that were read, in the depth that the refinement takes.
struct GreyImage {
    cv::Mat image;               ///< 8 or 16 bits, of 1 or 3 channels
    double zero = 0, level = 1;  ///< level g of it is zero + level * g of what was read
};

/// 8 and 16 bits as they are, the pixels shared; others in 16 bits, by the range and without one by that of their data.
GreyImage inAllBits(const cv::Mat& image, const std::optional<GreyRange>& range);

/// How the records that `findMarkers` gives for an image are to be read.
RefinementOptions refinementOptions(cv::Size image, const Camera& camera, const Settings& settings);

/// `refineMarkers`, with the levels in units of what was read.
std::vector<MarkerEstimate> refineOn(const GreyImage& grey, const std::vector<Corner>& records,
                                     const RefinementOptions& options);

/// The same in the pixels in which the path delivers, full size: without the lens's distortion where it takes that out.
std::vector<MarkerEstimate> refineDelivered(const GreyImage& grey, const std::vector<Corner>& records,
                                            const RefinementOptions& options);

/// An angle of an ellipse as the tables have it: degrees in [0, 180).
double degreesOf(double radians);

/// Puts centre, half axes and angle of those that were refined into the markers; all else stays what the path measured.
void applyEstimates(std::vector<Marker>& markers, const std::vector<MarkerEstimate>& estimates);

/// "57 refined, 2 touches another, 1 leaves the image": all of them by what became of them.
std::string countsOf(const std::vector<MarkerEstimate>& estimates);

/// A column of the tables of estimates, behind the status.
struct EstimateColumn {
    const char* name;
    double (*valueOf)(const MarkerEstimate&);  ///< NaN: unknown
};
const std::vector<EstimateColumn>& estimateColumns();

}  // namespace kestrune::measure
