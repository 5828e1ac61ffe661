// SPDX-License-Identifier: Apache-2.0
//
// What is measured: the library's paths, the floor below each of them, and detectors that OpenCV offers for the same
// task. A factory takes the scene, allocates what can be allocated once, and returns the work of one image.
#pragma once

#include <kestrune/MarkerExtractor.h>

#include <functional>
#include <opencv2/core.hpp>
#include <string>
#include <vector>

#include "bench_scenes.h"

namespace kestrune::bench {

struct Job {
    std::function<void()> run;                               ///< one image
    std::function<std::vector<cv::Point2d>()> centres = {};  ///< result of the last run; empty for a floor
};

/// Operations of the library.
enum class Operation { simple, complex, fast, stereo };

/// One image through an extraction, or both eyes of the exposure to points in space.
Job pathJob(const BenchScene& scene, const CicrleConfigs& settings, Operation operation);

/// What the refinement adds to the edge-based path: its markers, found once, fitted to the grey levels.
Job refinementJob(const BenchScene& scene, const CicrleConfigs& settings);

/// The same job in the library of an earlier build, which `benchmarks/compare --against` puts into a module.
///
/// @param file  the module.
/// @throws std::runtime_error  where it cannot be loaded, or has other records.
Job otherBuildsJob(const std::string& file, const BenchScene& scene, const CicrleConfigs& settings,
                   Operation operation);

// Floors: only those calls over the whole image, and for the edge-based path over the windows of its blobs, that the
// path cannot do without, with the path's arguments.
Job radialFloor(const BenchScene& scene, int scale);
Job subpixelFloor(const BenchScene& scene);
Job fastFloor(const BenchScene& scene);
Job complexFloor(const BenchScene& scene, int scale);

// Detectors of OpenCV, set up for bright discs of the scene's radii and grey levels.
Job blobRival(const BenchScene& scene);
Job houghRival(const BenchScene& scene);
Job edgeDrawingRival(const BenchScene& scene);
Job fitRival(const BenchScene& scene);

}  // namespace kestrune::bench
