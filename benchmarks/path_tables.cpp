// SPDX-License-Identifier: Apache-2.0
//
// Every path on images that differ in one thing each: found and false markers, centres, and time beside the radial
// path. Prints the three tables of docs/paths.md as Markdown.
#include <benchmark/benchmark.h>
#include <fmt/format.h>
#include <kestrune/MarkerMetrology.h>
#include <kestrune_scene/scene.h>
#include <markers.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace kestrune::bench {
namespace {

constexpr int kMarkers = 120;
constexpr std::uint64_t kSeed = 17;
constexpr double kHitRadius = 2;  ///< px: a detection farther away is of something else
constexpr int kRepetitions = 9;

/// One image. What is not named is as in the first one.
struct Image {
    const char* name;
    double leastRadius = 6, largestRadius = 40;  ///< px
    double tilt = 35;                            ///< degrees, at most
    bool tiltedAlike = false;                    ///< all of them by `tilt`
    double ground = 40, grey = 180, noise = 2;   ///< grey levels
    double blur = 0.8;                           ///< px
    int patches = 0;
    bool inverted = false;  ///< after rendering
    bool opened = false;    ///< gates of the settings opened for discs seen at a slant
};

const Image kImages[] = {
    {.name = "plain"},
    {.name = "small: radius 6", .largestRadius = 6},
    {.name = "large: radius 40", .leastRadius = 40},
    {.name = "low contrast: 100 on 40", .grey = 100},
    {.name = "dark: 40 on 180, as it is", .ground = 180, .grey = 40},
    {.name = "dark: 40 on 180, inverted", .ground = 180, .grey = 40, .inverted = true},
    {.name = "clutter: 400 patches", .patches = 400},
    {.name = "tilt: all by 60 degrees", .tilt = 60, .tiltedAlike = true},
    {.name = "the same, gates opened", .tilt = 60, .tiltedAlike = true, .opened = true},
    {.name = "noise 8", .noise = 8},
    {.name = "point spread 2.5 px", .blur = 2.5},
    {.name = "white on black: 250 on 10", .ground = 10, .grey = 250},
    {.name = "bright ground: 240 on 120", .ground = 120, .grey = 240},
};

struct Way {
    const char* name;
    const char* settings;
    Path path;
    bool refined = false;
};

const Way kWays[] = {
    {"radial", "bright-radial.yaml", Path::radial},
    {"radial, refined", "bright-radial.yaml", Path::radial, true},
    {"sub-pixel", "bright-subpixel.yaml", Path::simple},
    {"edge-based", "mixed-complex.yaml", Path::complex},
    {"fast", "bright-fast.yaml", Path::fast},
    {"hand", "bright-subpixel.yaml", Path::hand},
};

struct Scene {
    cv::Mat image;
    std::vector<scene::MarkerTruth> markers;
};

/// Turns every disc away from the line of sight to its centre by the same angle, each in a direction of its own.
void tiltAlike(std::vector<scene::Disc>& discs, double degrees) {
    cv::RNG rng(kSeed);
    for (scene::Disc& disc : discs) {
        const cv::Vec3d towards = -cv::normalize(disc.centre);
        const cv::Vec3d u = cv::normalize(towards.cross(cv::Vec3d(0, 1, 0))), v = towards.cross(u);
        const double direction = rng.uniform(0.0, 2 * CV_PI), tilt = degrees * CV_PI / 180;
        disc.normal = towards * std::cos(tilt) + (u * std::cos(direction) + v * std::sin(direction)) * std::sin(tilt);
    }
}

Scene render(const Image& kind) {
    scene::Rig rig = scene::makeVergedRig({2448, 2048});
    rig.left.distortion = rig.right.distortion = {};
    std::vector<scene::Disc> discs = scene::makeScatteredDiscs(rig, kMarkers, kind.leastRadius, kind.largestRadius,
                                                               kind.tiltedAlike ? 0 : kind.tilt, kind.grey, kSeed);
    if (kind.tiltedAlike) tiltAlike(discs, kind.tilt);
    scene::RenderOptions options;
    options.background = kind.ground;
    options.blurSigma = kind.blur;
    options.noiseSigma = kind.noise;
    options.seed = kSeed;
    const auto patches = scene::makeClutter(rig, discs, kind.patches, kSeed);
    scene::Exposure exposure = scene::render(rig, discs, patches, options);
    cv::Mat image = exposure.image[0];
    if (kind.inverted) cv::bitwise_not(image, image);
    return {image, exposure.markers};
}

/// Images are kept, so that the ways can take turns on them.
const Scene& sceneOf(const Image& kind) {
    static std::map<std::string, Scene> scenes;
    const auto found = scenes.find(kind.name);
    return found != scenes.end() ? found->second : scenes.emplace(kind.name, render(kind)).first->second;
}

Settings settingsOf(const Way& way, const Image& kind) {
    Settings settings = readSettings(std::string(KESTRUNE_SETTINGS_DIR) + "/" + way.settings, way.path);
    CicrleConfigs& configs = settings.configs;
    configs.skipUndistort = true;
    configs.refineAtFullSize = way.refined;
    if (kind.opened) {
        configs.maxEccentricity = 0.92;
        configs.minCircularity = 0.7;
        configs.maxFitError = configs.maxPointError = 6;
        configs.maxFitResidual = 0.15F;
        configs.minAxisRatio = 0.35F;
        configs.minArea = 20;
    }
    return settings;
}

void measure(benchmark::State& state, const Image& kind, const Way& way) {
    const Scene& scene = sceneOf(kind);
    const Settings settings = settingsOf(way, kind);
    CircleMarkerExtractor extractor;
    std::vector<measure::Marker> markers = measure::findMarkers(extractor, scene.image, 0, {}, settings);
    for ([[maybe_unused]] auto iteration : state)
        markers = measure::findMarkers(extractor, scene.image, 0, {}, settings);
    std::vector<cv::Point2d> centres;
    centres.reserve(markers.size());
    for (const measure::Marker& marker : markers) centres.push_back(marker.centre);
    const auto score = scene::scoreDetections(scene.markers, 0, centres, true, kHitRadius);
    state.counters["found"] = static_cast<double>(score.matches.size());
    state.counters["false"] = static_cast<double>(score.falseOnes.size());
    state.counters["rms"] = score.centreRms;
}

/// Collects all runs and prints the tables when they are through.
class Tables : public benchmark::BenchmarkReporter {
  public:
    bool ReportContext(const Context&) override { return true; }

    void ReportRuns(const std::vector<Run>& runs) override {
        for (const Run& run : runs) {
            if (run.run_type != Run::RT_Iteration) continue;
            Cell& cell = cells_[run.run_name.function_name];
            cell.times.push_back(run.GetAdjustedRealTime());
            for (const auto& [name, counter] : run.counters) cell.quality[name] = counter.value;
        }
    }

    void Finalize() override {
        print(fmt::format("Found of {}; false ones, if any, behind a plus sign:", kMarkers), [](const Cell& cell,
                                                                                                auto&) {
            const double wrong = cell.quality.at("false");
            return fmt::format("{:.0f}", cell.quality.at("found")) + (wrong > 0 ? fmt::format(" + {:.0f}", wrong) : "");
        });
        print("Centre, RMS in px:", [](const Cell& cell, auto&) {
            return cell.quality.at("found") > 0 ? fmt::format("{:.3f}", cell.quality.at("rms")) : "";
        });
        print("Time over that of radial on the same image:", [](const Cell& cell, const Cell& radial) {
            const double ratio = cell.median() / radial.median();
            return fmt::format("{:.{}f}", ratio, ratio < 1 ? 2 : 1);
        });
    }

  private:
    struct Cell {
        std::vector<double> times;
        std::map<std::string, double> quality;
        double median() const {
            std::vector<double> sorted = times;
            std::sort(sorted.begin(), sorted.end());
            return sorted[sorted.size() / 2];
        }
    };

    template <typename Text>
    void print(const std::string& title, const Text& text) const {
        std::string head = "| image |", rule = "|---|";
        for (const Way& way : kWays) head += fmt::format(" {} |", way.name), rule += "---:|";
        fmt::print("{}\n\n{}\n{}\n", title, head, rule);
        for (const Image& image : kImages) {
            const auto cellOf = [&](const Way& way) { return cells_.find(fmt::format("{}/{}", image.name, way.name)); };
            const auto radial = cellOf(kWays[0]);
            if (radial == cells_.end()) continue;  // filtered out
            std::string row = fmt::format("| {} |", image.name);
            for (const Way& way : kWays) {
                const auto cell = cellOf(way);
                row += fmt::format(" {} |", cell == cells_.end() ? "" : text(cell->second, radial->second));
            }
            fmt::print("{}\n", row);
        }
        fmt::print("\n");
    }

    std::map<std::string, Cell> cells_;
};

void registerAll() {
    for (const Image& image : kImages) {
        for (const Way& way : kWays) {
            const std::string name = fmt::format("{}/{}", image.name, way.name);
#ifndef __clang_analyzer__  // It takes what the benchmark library keeps until the end for a leak.
            benchmark::RegisterBenchmark(name.c_str(), measure, image, way)
                ->Unit(benchmark::kMillisecond)
                ->UseRealTime()
                ->Repetitions(kRepetitions);
#endif
        }
    }
}

}  // namespace
}  // namespace kestrune::bench

int main(int argc, char** argv) {
    kestrune::bench::registerAll();
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 2;
    kestrune::bench::Tables tables;
    benchmark::RunSpecifiedBenchmarks(&tables);
    return 0;
}
