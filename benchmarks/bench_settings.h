// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <kestrune/MarkerExtractor.h>

namespace kestrune::bench {

/// The ready settings for bright markers of the scenes' radii, in the image as it is (no undistortion).
CicrleConfigs radialSettings(int scale, bool refineAtFullSize);
CicrleConfigs subpixelSettings(bool threaded);
CicrleConfigs fastSettings();
CicrleConfigs complexSettings(int scale);

/// With the bounds of depth and rows of the scenes' rig for the match.
CicrleConfigs stereoSettings(CicrleConfigs settings);

}  // namespace kestrune::bench
