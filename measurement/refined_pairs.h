// SPDX-License-Identifier: Apache-2.0
//
// The markers of an exposure measured again on its grey levels, before they are matched, and the discs in space that
// the pairs show.
#pragma once

#include <kestrune/MarkerExtractor.h>

#include <array>
#include <opencv2/core.hpp>
#include <string>
#include <vector>

#include <kestrune/MarkerMetrology.h>
#include "refined_markers.h"

namespace kestrune::measure {

/// What a measurement that refines takes beside the images in 8 bits.
struct RefinementInput {
    std::array<GreyImage, 2> grey;  ///< the images with all their bits
    RigUncertainty calibration{};   ///< of the rig
};

/// The markers of both eyes as the matcher takes them. All lists of an eye are in step.
struct RefinedEyes {
    std::array<std::vector<Corner>, 2> corners;
    std::array<std::vector<cv::RotatedRect>, 2> rims;  ///< in the pixels of the corners
    std::array<std::vector<MarkerEstimate>, 2> estimates;
};

/// Finds the markers of both images and measures them again. Those that were refined stand in the records as refined.
///
/// @param extractor  calibrated; its scratch storage is used.
/// @param images     in 8 bits.
/// @param grey       the same as they were read.
/// @throws cv::Exception  from the libraries.
RefinedEyes refineEyes(CircleMarkerExtractor& extractor, const std::array<cv::Mat, 2>& images,
                       const std::array<GreyImage, 2>& grey, const Settings& settings);

/// The same without measuring again: estimates with the standard deviations that the outlines show.
RefinedEyes findEyes(CircleMarkerExtractor& extractor, const std::array<cv::Mat, 2>& images, const Settings& settings);

/// The rig in whose pixels the markers of a measurement are: without distortion, or rectified with `cornersRectified`.
///
/// @param uncertainty  of the rig as calibrated. What it is to a rectified one is not told.
RigMatrices rigOfPixels(const CircleMarkerExtractor& extractor, const CicrleConfigs& configs,
                        const RigUncertainty& uncertainty);

/// What is known of a pair when its markers were measured again.
struct PairEstimate {
    std::array<MarkerEstimate, 2> eyes;  ///< in the pixels of the pair's rims
    DiscEstimate disc;                   ///< in the frame of the pair's point; not found: the matcher's point stays
    bool refined = true;                 ///< whether it was tried
};

/// What became of the refinement of one of the pair's markers; "not refined" where it was not tried.
const char* statusOf(const PairEstimate& pair, std::size_t eye);

/// The disc seen from a frame that is turned: points and normals of the old one are multiplied by `turn`.
DiscEstimate turned(DiscEstimate disc, const cv::Matx33d& turn);

/// Root mean square of the angle between the measured normal and the true one, degrees.
double normalSigma(const DiscEstimate& disc);

/// "disc" or "matcher": whose the point of a pair is.
const char* pointSourceOf(const PairEstimate& pair);

/// A column of the tables of pairs, of numbers; NaN: unknown.
struct PairColumn {
    const char* name;
    double (*valueOf)(const PairEstimate&);
};

/// Behind "leftStatus", "rightStatus" and "pointSource".
const std::vector<PairColumn>& pairColumns();

}  // namespace kestrune::measure
