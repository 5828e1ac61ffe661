// SPDX-License-Identifier: Apache-2.0
//
// A check of a setting that can spoil centres without a sign of it in any single marker.
#pragma once

#include <string>
#include <vector>

#include "markers.h"

namespace kestrune::measure {

/// What `refineAtFullSize` has spoilt on this image, as a sentence; empty if nothing, and on any other path.
///
/// The setting thresholds each blob again in the image as it is. There noise tears the blob of a faint marker, and a
/// circle about one of the pieces can pass every gate, pixels beside the marker's centre. The search in the reduced
/// image does not suffer from this, so it is made here as well, and the centres are compared.
///
/// @param markers  what `findMarkers` gave for the other arguments.
std::string fullSizeWarning(CircleMarkerExtractor& extractor, const cv::Mat& image, int eye, const Camera& camera,
                            const Settings& settings, const std::vector<Marker>& markers);

}  // namespace kestrune::measure
