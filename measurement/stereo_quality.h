// SPDX-License-Identifier: Apache-2.0
//
// How good a pair of markers and a whole exposure are, from what the rig alone says: plain pinhole geometry, no word of
// the matching.
#pragma once

#include <kestrune/MarkerExtractor.h>

#include <array>
#include <opencv2/core.hpp>
#include <string>

namespace kestrune::measure {

struct StereoResult;

/// How far a point in space is from what the eyes saw, px.
struct Residuals {
    double row;                 ///< row of the left pixel minus that of the right one, both rectified
    std::array<double, 2> eye;  ///< distance of the point's projection from each eye's pixel
};

/// @param pixel  of both eyes, undistorted (rectified with `cornersRectified`).
/// @param point  in the frame that `outputRectified` asks for.
Residuals residualsOf(const CircleMarkerExtractor& rig, const CicrleConfigs& configs,
                      const std::array<cv::Point2d, 2>& pixel, const cv::Vec3d& point);

/// Root mean squares over all markers of an exposure.
Residuals rootMeanSquares(const StereoResult& result);

/// Share of the poorer eye's markers that must be paired, unless the command line says otherwise. Eyes exchanged, or
/// the rig of another day, leave a few pairs by chance: 3 of 60 at most on rendered exposures.
constexpr double kLeastShare = 0.5;

/// What speaks against an exposure as a whole; empty if nothing does. A match by probability tells its objection.
///
/// @param minShare  0 to 1; 0 takes any number of pairs above none.
std::string objectionTo(const StereoResult& result, const CicrleConfigs& configs, double minShare);

/// What speaks against some pairs of an exposure that is good as a whole, or against its calibration: in a dense
/// pattern a wrong partner in the right rows still lies farther off its row than a marker's centre is in doubt. Of a
/// match by probability, the pairs that it left out as ambiguous. Empty: nothing.
std::string doubtAbout(const StereoResult& result);

}  // namespace kestrune::measure
