// SPDX-License-Identifier: Apache-2.0
//
// Storage of the paths that goes from call to call, so that none of them allocates for an image of the size of the
// last.
#pragma once

#include "MarkerExtractor/extraction/radial_fast.h"
#include "MarkerExtractor/extraction/rim_windows.h"
#include "blobs/bright_blobs.h"
#include "canny/fast_contours.h"
#include "kestrune/MarkerExtractor.h"

namespace kestrune {

/// One member for each room that keeps something, defined there.
struct Workspace {
    RadialScratch radial;
    EdgeScratch edges;
    BlobScratch blobs;
    RimStorage rims;
};

/// That of the extractor, made at the first call.
Workspace& workspaceOf(CircleMarkerExtractor& extractor);

}  // namespace kestrune
