// SPDX-License-Identifier: Apache-2.0
//
// Times every path, its floor, and OpenCV's own detectors on the same rendered images, and says how well each answers.
#include <benchmark/benchmark.h>
#include <fmt/format.h>

#include <array>
#include <opencv2/core.hpp>
#include <string>
#include <string_view>

#include "bench_names.h"
#include "bench_scenes.h"
#include "candidates.h"

namespace kestrune::bench {
namespace {

// Common sensors of 1.3, 5 and 20 megapixels.
const std::array<cv::Size, 3> kImageSizes{{{1280, 1024}, {2448, 2048}, {5472, 3648}}};
constexpr std::array<int, 3> kMarkerCounts{20, 120, 500};

struct Candidate {
    std::string_view name;
    Job (*make)(const BenchScene&);
};

const Candidate kCandidates[] = {
    {"radial_s1", [](const BenchScene& scene) { return radialPath(scene, 1, false); }},
    {"radial_s2", [](const BenchScene& scene) { return radialPath(scene, 2, false); }},
    {"radial_s2_refine", [](const BenchScene& scene) { return radialPath(scene, 2, true); }},
    {"subpixel", [](const BenchScene& scene) { return subpixelPath(scene, false); }},
    {"subpixel_threads", [](const BenchScene& scene) { return subpixelPath(scene, true); }},
    {"fast", fastPath},
    {"complex_s1", [](const BenchScene& scene) { return complexPath(scene, 1); }},
    {"complex_s2", [](const BenchScene& scene) { return complexPath(scene, 2); }},
    {"floor_radial_s1", [](const BenchScene& scene) { return radialFloor(scene, 1); }},
    {"floor_radial_s2", [](const BenchScene& scene) { return radialFloor(scene, 2); }},
    {"floor_subpixel", subpixelFloor},
    {"floor_fast", fastFloor},
    {"floor_complex_s1", [](const BenchScene& scene) { return complexFloor(scene, 1); }},
    {"floor_complex_s2", [](const BenchScene& scene) { return complexFloor(scene, 2); }},
    {"rival_blob", blobRival},
    {"rival_hough", houghRival},
    {"rival_edgedrawing", edgeDrawingRival},
    {"rival_fit", fitRival},
};

void measure(benchmark::State& state, const Candidate& candidate, cv::Size size, int markers) {
    const BenchScene& scene = cachedScene(size, markers);
    const Job job = candidate.make(scene);
    // The first run sizes everything that later ones reuse.
    job.run();
    for ([[maybe_unused]] auto iteration : state) job.run();
    if (!job.centres) return;
    const Quality quality = judge(scene, job.centres());
    state.counters[std::string(kRecallCounter)] = quality.recall;
    state.counters[std::string(kFalseCounter)] = quality.falseOnes;
    state.counters[std::string(kCentreRmsCounter)] = quality.centreRms;
}

void registerAll() {
    for (const cv::Size& size : kImageSizes) {
        for (const int markers : kMarkerCounts) {
            for (const Candidate& candidate : kCandidates) {
                const std::string name = fmt::format("{}/{}x{}/{}", candidate.name, size.width, size.height, markers);
#ifndef __clang_analyzer__  // It takes what the benchmark library keeps until the end for a leak.
                // Wall time is what a user waits for, and some calls use threads; the processor time of all threads
                // tells the same where other programs keep the machine busy.
                benchmark::RegisterBenchmark(name.c_str(), measure, candidate, size, markers)
                    ->Unit(benchmark::kMillisecond)
                    ->MeasureProcessCPUTime()
                    ->UseRealTime();
#endif
            }
        }
    }
}

}  // namespace
}  // namespace kestrune::bench

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::AddCustomContext("opencv", CV_VERSION);
    benchmark::AddCustomContext("opencv_threads", std::to_string(cv::getNumThreads()));
    kestrune::bench::registerAll();
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
