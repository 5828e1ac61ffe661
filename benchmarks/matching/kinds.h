// SPDX-License-Identifier: Apache-2.0
//
// What is varied from scene to scene.
#pragma once

#include <cstdint>
#include <opencv2/core/types.hpp>
#include <string>
#include <vector>

namespace kestrune::bench {

enum class Layout { randomPlane, gridPlane, randomCylinder, gridCylinder, layers, volume, clusters };

/// How the object is turned to the rig.
enum class Stance {
    any,      ///< tilted about any axis, and turned in its own plane
    frontal,  ///< parallel to the plane of rectified images, turned in its own plane
    level,    ///< rows along the baseline, tilted about it: all markers of a row on one epipolar line
};

enum class RigShape { symmetric, lopsided, rolled, parallel };

/// What is wrong with a scene.
enum class Trouble {
    none,
    sigmas,       ///< told a half or twice as large as they are
    outliers,     ///< a few ellipses are off by much more than their sigmas
    turned,       ///< the right camera has turned since it was calibrated
    exchanged,    ///< left is right
    foreign,      ///< another rig's calibration
    nothing,      ///< the eyes look at different objects
    shifted,      ///< a level grid of which each eye sees as many columns, but not the same
    calibration,  ///< the calibration is off by as much as its uncertainty says
};

struct SceneKind {
    Layout layout = Layout::randomPlane;
    Stance stance = Stance::any;
    Trouble trouble = Trouble::none;
    int markers = 100;       ///< on the object
    double tilt = 0;         ///< degrees
    double jitter = 0;       ///< of grids: standard deviation of a place, as a share of the pitch
    double radius = 10;      ///< of the smallest marker's image, px
    int sizes = 1;           ///< nominal ones; 0: continuous
    double sizeSpread = 1;   ///< largest over smallest
    double sizeScatter = 0;  ///< standard deviation of a marker's radius, as a share of the nominal one
    double fill = 0.7;       ///< half width of the object's image, as a share of what both images hold
    double unit = 1;         ///< of lengths, for a millimetre
    RigShape rig = RigShape::symmetric;
    double axesAngle = 12;  ///< between the views of both eyes, degrees
    double focal = 3000;    ///< px
    cv::Size image{2448, 2048};
    double distance = 1000;  ///< mm
    double noise = 0.1;      ///< standard deviation of a centre's coordinate, px
    double noiseSpread = 1;  ///< its factor from the best marker to the worst
    double single = 0;       ///< share of the markers that one eye alone sees, of those that any sees
    bool hidden = false;     ///< whether what is missing in an eye is missing in one region of it
    double falseShare = 0;   ///< false detections in each eye, as a share of the true ones
    bool falseNear = true;   ///< whether they are among the markers or anywhere in the image
    bool levels = false;     ///< whether estimates are refined ones with grey levels
    bool dark = false;       ///< markers on bright ground
    double factor = 1;       ///< of `sigmas`: told over true; of `outliers`: in sigmas; of `turned`: degrees;
                             ///< of `calibration`: rotation, rad
    int shift = 0;           ///< of `shifted`: columns
};

/// With all the variety there is.
SceneKind drawKind(std::uint64_t seed);

/// The same with this trouble. Of `shifted` only what it does not determine is drawn.
SceneKind drawKind(std::uint64_t seed, Trouble trouble);

const std::vector<std::string>& troubleNames();  ///< in their order; "all" for `none`
const char* nameOf(Layout layout);
const char* nameOf(Stance stance);
const char* nameOf(RigShape shape);

/// On one line.
std::string textOf(const SceneKind& kind);

}  // namespace kestrune::bench
