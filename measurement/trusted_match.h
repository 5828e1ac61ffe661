// SPDX-License-Identifier: Apache-2.0
//
// Markers of both eyes to pairs that can be trusted: `matchMarkers` in the frames, records and texts of a stereo
// measurement.
#pragma once

#include <kestrune/MarkerExtractor.h>

#include <opencv2/core.hpp>
#include <string>
#include <utility>
#include <vector>

#include <kestrune/MarkerMetrology.h>
#include "match_knowledge.h"
#include "stereo_result.h"

namespace kestrune::measure {

/// What a measurement that matches by probability takes beside the images.
struct TrustedInput {
    MatchKnowledge known;
    RigUncertainty calibration{};
};

/// Matches the markers of both eyes. Sure pairs become the markers of the result, others its ambiguous ones; the rest
/// is told as unmatched. Residuals, failure and doubt stay as they are.
///
/// @param eyes  estimates and corners in the pixels of the rig.
/// @param rig   of these pixels: `rigOfPixels`.
/// @param turn  from its left camera's frame to that of the points.
/// @return      the records of the sure pairs, in the order of `markers`.
/// @throws cv::Exception  from the library.
std::vector<std::pair<Corner, Corner>> matchTrusted(StereoResult& result, RefinedEyes eyes, const RigMatrices& rig,
                                                    const MatchOptions& options, const cv::Matx33d& turn);

/// "; would be told apart: 2 by nominal radius, 1 by another view": of the pairs in doubt; empty for none.
std::string decidersOf(const StereoResult& result);

/// "3 pairs are ambiguous and left out; would be told apart: 2 by nominal radius"; empty without any.
std::string ambiguityOf(const StereoResult& result);

/// The calibration with the orientation that the exposures show. @throws InputError  as `rigOf`.
Rig movedRig(const Rig& calibration, const MovedRig& moved);

/// A number of `PairCues`, by the name of its column.
struct CueColumn {
    const char* name;
    double PairCues::*value;
};
const std::vector<CueColumn>& cueColumns();

}  // namespace kestrune::measure
