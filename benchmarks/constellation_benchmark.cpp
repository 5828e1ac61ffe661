// SPDX-License-Identifier: Apache-2.0
// What it costs to find the pattern of markers of one eye in the other: easy, among many alike edges, and in vain.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cmath>
#include <numeric>
#include <random>

#include "MarkerExtractor/stereo/constellation.h"

namespace {

using kestrune::MarkerMatchRecord;
using Records = std::vector<MarkerMatchRecord>;

constexpr double kLengthTolerance = 0.1;
constexpr double kAngleTolerance = 0.1;  ///< rad
constexpr unsigned kSeed = 20;
// A frame of five megapixels.
constexpr double kWidth = 2448, kHeight = 2048;

struct Scene {
    Records left, right;
};

double uniform(std::mt19937& generator, double lo, double hi) {
    return lo + (hi - lo) * (generator() / 4294967296.0);  // unlike the library's distributions alike everywhere
}

MarkerMatchRecord markerAt(double x, double y) {
    return {x, y, {}, {}, {}, {}, 0};
}

/// Candidates are, as in a rectified pair, the markers of nearly the same row with a disparity that is possible.
void linkByRows(Scene& scene, double rowTolerance, double leastDisparity, double largestDisparity) {
    for (std::size_t i = 0; i < scene.left.size(); ++i) {
        for (std::size_t j = 0; j < scene.right.size(); ++j) {
            const double disparity = scene.left[i].x - scene.right[j].x;
            if (std::abs(scene.left[i].y - scene.right[j].y) > rowTolerance) continue;
            if (disparity < leastDisparity || disparity > largestDisparity) continue;
            scene.left[i].matches.push_back(static_cast<int>(j));
            scene.right[j].matches.push_back(static_cast<int>(i));
        }
    }
}

/// Markers all over a sloping, slightly curved object.
Scene easyScene(int n) {
    std::mt19937 generator(kSeed);
    Scene scene;
    for (int i = 0; i < n; ++i) {
        const double x = uniform(generator, 400, kWidth), y = uniform(generator, 0, kHeight);
        const double disparity = 200 + 0.03 * x + 20 * std::sin(y / kHeight);
        scene.left.push_back(markerAt(x, y));
        scene.right.push_back(markerAt(x - disparity, y + uniform(generator, -0.2, 0.2)));
    }
    linkByRows(scene, 4, 150, 400);
    return scene;
}

/// A flat grid: each marker of a row is a candidate of several others of that row, and nearly all edges have doubles.
Scene gridScene(int n) {
    std::mt19937 generator(kSeed);
    const int columns = static_cast<int>(std::ceil(std::sqrt(n)));
    Scene scene;
    for (int i = 0; i < n; ++i) {
        const int column = i % columns, row = i / columns;
        const double x = 500 + 110.0 * column, y = 100 + 110.0 * row;
        scene.left.push_back(markerAt(x, y));
        const double dx = uniform(generator, -0.2, 0.2), dy = uniform(generator, -0.2, 0.2);
        scene.right.push_back(markerAt(x - 250 + dx, y + dy));
    }
    linkByRows(scene, 4, 100, 400);
    return scene;
}

/// Two patterns that have nothing to do with each other; each marker has `candidates` partners drawn by lot.
Scene vainScene(int n, int candidates) {
    std::mt19937 generator(kSeed);
    Scene scene;
    for (Records* eye : {&scene.left, &scene.right}) {
        for (int i = 0; i < n; ++i) {
            const double x = uniform(generator, 0, kWidth), y = uniform(generator, 0, kHeight);
            eye->push_back(markerAt(x, y));
        }
    }
    std::vector<std::size_t> lot(scene.left.size());
    std::iota(lot.begin(), lot.end(), std::size_t{0});
    for (int round = 0; round < candidates; ++round) {
        for (std::size_t i = lot.size() - 1; i > 0; --i) std::swap(lot[i], lot[generator() % (i + 1)]);
        for (std::size_t i = 0; i < lot.size(); ++i) {
            scene.left[i].matches.push_back(static_cast<int>(lot[i]));
            scene.right[lot[i]].matches.push_back(static_cast<int>(i));
        }
    }
    return scene;
}

// Lots that no triangle is confirmed by: with a few more or looser angles, chance alone gives a consensus.
constexpr int kFewLots = 3, kManyLots = 20;
constexpr double kTightAngle = 0.01;  ///< rad; so that even twenty candidates a marker confirm nothing

void run(benchmark::State& state, const Scene& scene, double angleTolerance, bool isReached) {
    std::vector<std::pair<int, int>> pairs;
    for ([[maybe_unused]] auto iteration : state) {
        if (kestrune::findConstellation(scene.left, scene.right, kLengthTolerance, angleTolerance, pairs) !=
            isReached) {
            state.SkipWithError("the scene is not what its name says");
            return;
        }
    }
    const auto isRight = [](const std::pair<int, int>& pair) { return pair.first == pair.second; };
    state.counters["pairs"] = static_cast<double>(pairs.size());
    state.counters["right"] = static_cast<double>(std::count_if(pairs.begin(), pairs.end(), isRight));
}

int sizeOf(const benchmark::State& state) {
    return static_cast<int>(state.range(0));
}

void constellationEasy(benchmark::State& state) {
    run(state, easyScene(sizeOf(state)), kAngleTolerance, true);
}
void constellationGrid(benchmark::State& state) {
    run(state, gridScene(sizeOf(state)), kAngleTolerance, true);
}
void constellationVain(benchmark::State& state) {
    run(state, vainScene(sizeOf(state), kFewLots), kAngleTolerance, false);
}
void constellationVainCrowded(benchmark::State& state) {
    run(state, vainScene(sizeOf(state), std::min(kManyLots, sizeOf(state) / 3)), kTightAngle, false);
}

void markerCounts(benchmark::internal::Benchmark* candidate) {
    for (const int n : {10, 30, 60, 120, 200}) candidate->Arg(n);
    candidate->Unit(benchmark::kMillisecond)->MeasureProcessCPUTime()->UseRealTime();
}

BENCHMARK(constellationEasy)->Apply(markerCounts);
BENCHMARK(constellationGrid)->Apply(markerCounts);
BENCHMARK(constellationVain)->Apply(markerCounts);
BENCHMARK(constellationVainCrowded)->Apply(markerCounts);

}  // namespace

BENCHMARK_MAIN();
