// SPDX-License-Identifier: Apache-2.0
//
// Measured points in space against the truth of a rendered exposure: which pairs are right, how far off the points are,
// and how far off they would be from the error of the image centres alone.
#pragma once

#include <array>
#include <opencv2/core.hpp>
#include <vector>

#include "kestrune_scene/scene.h"

namespace kestrune::scene {

/// One pair of a stereo measurement. The frame is that of the left camera, in millimetres; what is not known is not a
/// number.
struct MeasuredMarker {
    std::array<cv::Point2d, 2> pixel;  ///< left, right; undistorted px
    cv::Vec3d point;
    cv::Vec3d normal;
    double radius;
};

/// What a measured pixel stands for.
enum class PixelMeaning {
    ellipseCentre,    ///< centre of the rim's image
    projectedCentre,  ///< image of the disc's centre
};

struct StereoMatch {
    int marker;          ///< index into the truth
    int measured;        ///< index into the measurement
    double error;        ///< distance of the points, mm
    double normalError;  ///< angle between the normals, degrees; NaN where unknown
    double radiusError;  ///< measured less true, mm; NaN where unknown
};

struct StereoScore {
    std::vector<StereoMatch> matches;  ///< right pairs, in ascending order of `marker`
    std::vector<int> missed;           ///< markers that both eyes see, without a right pair
    std::vector<int> wrong;            ///< pairs that do not show one marker in both eyes, or show one already matched

    // Over the matches; 0 if there are none, NaN for what is not known of one of them.
    std::array<double, 2> centreRms{};     ///< of each eye, px
    double pointRms = 0, pointMax = 0;     ///< mm
    double normalRms = 0, normalMax = 0;   ///< degrees
    double radiusMean = 0, radiusRms = 0;  ///< mm; the mean is signed
    double impliedRms = 0;                 ///< what `centreRms` alone makes of the points, mm
    double objectSize = 0;                 ///< largest distance of two markers of the truth, mm
};

/// Assigns each pair to the markers that its two pixels lie on, nearest pairs first.
///
/// @param maxDistance  a pixel farther away than this from every marker shows none, px.
StereoScore scoreStereo(const Exposure& exposure, const std::vector<MeasuredMarker>& measured, PixelMeaning meaning,
                        double maxDistance);

/// RMS error of a linearly triangulated point at `pixel` whose two pixels scatter by `centreRms` (both coordinates
/// together, alike in x and y), mm.
double impliedPointError(const Rig& rig, const std::array<cv::Point2d, 2>& pixel,
                         const std::array<double, 2>& centreRms);

}  // namespace kestrune::scene
