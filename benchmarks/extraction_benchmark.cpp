// SPDX-License-Identifier: Apache-2.0
//
// Times every path, its floor, and OpenCV's own detectors on the same rendered images, and says how well each answers.
#include <benchmark/benchmark.h>
#include <fmt/format.h>
#include <omp.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <functional>
#include <opencv2/core.hpp>
#include <string>
#include <string_view>
#include <vector>

#include "bench_names.h"
#include "bench_scenes.h"
#include "bench_settings.h"
#include "candidates.h"

namespace kestrune::bench {
namespace {

struct Scene {
    cv::Size size;
    std::array<int, 4> markers;
};
// Common sensors of 1.3, 5 and 20 megapixels, and on either side of them what shows how times grow.
const std::array<Scene, 5> kScenes{{{{640, 480}, {1, 12}},
                                    {{1280, 1024}, {1, 20, 120, 500}},
                                    {{2448, 2048}, {1, 20, 120, 500}},
                                    {{5472, 3648}, {1, 20, 120, 500}},
                                    {{8192, 6144}, {1, 120, 500, 5000}}}};

struct PathCandidate {
    std::string_view name;
    CicrleConfigs settings;
    Operation operation;
};

const std::vector<PathCandidate>& pathCandidates() {
    static const std::vector<PathCandidate> kPaths = {
        {"radial_s1", radialSettings(1, false), Operation::simple},
        {"radial_s2", radialSettings(2, false), Operation::simple},
        {"radial_s2_refine", radialSettings(2, true), Operation::simple},
        {"subpixel", subpixelSettings(false), Operation::simple},
        {"subpixel_threads", subpixelSettings(true), Operation::simple},
        {"fast", fastSettings(), Operation::fast},
        {"complex_s1", complexSettings(1), Operation::complex},
        {"complex_s2", complexSettings(2), Operation::complex},
        {"stereo_radial", stereoSettings(radialSettings(2, false)), Operation::stereo},
        {"stereo_complex", stereoSettings(complexSettings(2)), Operation::stereo},
    };
    return kPaths;
}

struct Candidate {
    std::string name;
    std::function<Job(const BenchScene&)> make;
};

/// @param otherBuild  module of an earlier build, whose paths run as well; empty for none.
std::vector<Candidate> candidates(const std::string& otherBuild) {
    std::vector<Candidate> all = {
        {"floor_radial_s1", [](const BenchScene& scene) { return radialFloor(scene, 1); }},
        {"floor_radial_s2", [](const BenchScene& scene) { return radialFloor(scene, 2); }},
        {"floor_subpixel", subpixelFloor},
        {"floor_fast", fastFloor},
        {"floor_complex_s1", [](const BenchScene& scene) { return complexFloor(scene, 1); }},
        {"floor_complex_s2", [](const BenchScene& scene) { return complexFloor(scene, 2); }},
        {"refinement", [](const BenchScene& scene) { return refinementJob(scene, complexSettings(2)); }},
        {"rival_blob", blobRival},
        {"rival_hough", houghRival},
        {"rival_edgedrawing", edgeDrawingRival},
        {"rival_fit", fitRival},
    };
    for (const PathCandidate& path : pathCandidates()) {
        all.push_back({std::string(path.name),
                       [path](const BenchScene& scene) { return pathJob(scene, path.settings, path.operation); }});
        if (otherBuild.empty()) continue;
        all.push_back({std::string(kOtherBuild) + std::string(path.name), [path, otherBuild](const BenchScene& scene) {
                           return otherBuildsJob(otherBuild, scene, path.settings, path.operation);
                       }});
    }
    return all;
}

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

void registerAll(const std::string& otherBuild) {
    for (const Scene& scene : kScenes) {
        for (const int markers : scene.markers) {
            if (markers == 0) continue;
            for (const Candidate& candidate : candidates(otherBuild)) {
                const std::string name =
                    fmt::format("{}/{}x{}/{}", candidate.name, scene.size.width, scene.size.height, markers);
#ifndef __clang_analyzer__  // It takes what the benchmark library keeps until the end for a leak.
                // Wall time is what a user waits for, and some calls use threads; the processor time of all threads
                // tells the same where other programs keep the machine busy.
                benchmark::RegisterBenchmark(name.c_str(), measure, candidate, scene.size, markers)
                    ->Unit(benchmark::kMillisecond)
                    ->MeasureProcessCPUTime()
                    ->UseRealTime();
#endif
            }
        }
    }
}

/// Takes "--name=value" out of the arguments, as the benchmark library does with its own.
std::string takeOption(int& argc, char** argv, const std::string& name) {
    const std::string prefix = "--" + name + "=";
    char** const end = argv + argc;
    char** const found = std::find_if(
        argv + 1, end, [&](const char* text) { return prefix.compare(0, prefix.size(), text, 0, prefix.size()) == 0; });
    if (found == end) return {};
    const std::string value = *found + prefix.size();
    std::copy(found + 1, end, found);
    --argc;
    return value;
}

}  // namespace
}  // namespace kestrune::bench

/// usage: kestrune_benchmarks [--threads=N] [--other=MODULE] [--benchmark_...]
int main(int argc, char** argv) {
    const std::string threads = kestrune::bench::takeOption(argc, argv, "threads");
    const std::string otherBuild = kestrune::bench::takeOption(argc, argv, "other");
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    if (!threads.empty()) {
        const int count = std::max(1, std::atoi(threads.c_str()));
        omp_set_num_threads(count);
        cv::setNumThreads(count);
    }
    benchmark::AddCustomContext("opencv", CV_VERSION);
    benchmark::AddCustomContext("threads", std::to_string(omp_get_max_threads()));
    kestrune::bench::registerAll(otherBuild);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
