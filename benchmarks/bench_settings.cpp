// SPDX-License-Identifier: Apache-2.0
#include "bench_settings.h"

#include <kestrune/MarkerMetrology.h>

#include <string>

namespace kestrune::bench {
namespace {

// The edge-based path's blobs are rims. At full size they need a wider block to fill enough of the box of a large disc,
// and then have more pixels, of which four times `maxDiameter` are allowed.
constexpr int kFullSizeAperture = 15;
constexpr float kFullSizeMaxDiameter = 300;

// The ready settings' bounds of a match: px, mm.
constexpr double kRowDifference = 1.5, kLeastDepth = 600, kLargestDepth = 1200;

CicrleConfigs readySettings(const char* file, Path path) {
    CicrleConfigs settings = readSettings(std::string(KESTRUNE_SETTINGS_DIR) + "/" + file, path).configs;
    settings.skipUndistort = true;
    return settings;
}

}  // namespace

CicrleConfigs radialSettings(int scale, bool refineAtFullSize) {
    static const CicrleConfigs ready = readySettings("bright-radial.yaml", Path::radial);
    CicrleConfigs settings = ready;
    settings.scale = scale;
    settings.refineAtFullSize = refineAtFullSize;
    return settings;
}

CicrleConfigs subpixelSettings(bool threaded) {
    static const CicrleConfigs ready = readySettings("bright-subpixel.yaml", Path::simple);
    CicrleConfigs settings = ready;
    settings.useThreads = threaded;
    return settings;
}

CicrleConfigs fastSettings() {
    static const CicrleConfigs ready = readySettings("bright-fast.yaml", Path::fast);
    return ready;
}

CicrleConfigs complexSettings(int scale) {
    static const CicrleConfigs ready = readySettings("bright-complex.yaml", Path::complex);
    CicrleConfigs settings = ready;
    settings.scale = scale;
    if (scale == 1) {
        settings.aperture = kFullSizeAperture;
        settings.maxDiameter = kFullSizeMaxDiameter;
    }
    return settings;
}

CicrleConfigs stereoSettings(CicrleConfigs settings) {
    settings.skipUndistort = false;
    settings.markerRadii.clear();  // discs of many sizes
    settings.maxRowDifference = kRowDifference;
    settings.minDepth = kLeastDepth;
    settings.maxDepth = kLargestDepth;
    return settings;
}

}  // namespace kestrune::bench
