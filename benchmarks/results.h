// SPDX-License-Identifier: Apache-2.0
//
// A result file of the benchmark program.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

namespace kestrune::bench {

/// Repetitions that lie farther apart than this share of their median tell of a machine that had other work to do.
constexpr double kLargestSpread = 0.25;

struct Result {
    std::vector<double> milliseconds;     ///< wall time of one image, one a repetition
    std::vector<double> cpuMilliseconds;  ///< processor time of all threads
    std::optional<double> recall, falseOnes, centreRms;

    bool isUnsteady() const;
};

/// One image: results of everything that ran on it, by name.
struct Scene {
    int width = 0, height = 0, markers = 0;
    double pixels() const { return static_cast<double>(width) * height; }
    bool operator<(const Scene& other) const {
        return std::pair{pixels(), markers} < std::pair{other.pixels(), other.markers};
    }
};
using ResultsByName = std::map<std::string, Result, std::less<>>;
using Results = std::map<Scene, ResultsByName>;

struct RunOfBenchmarks {
    Results results;
    int processors = 0, megahertz = 0;
    std::string openCv, threads;
};

double median(std::vector<double> values);

/// @throws std::exception  where it cannot be read or is another kind of file.
RunOfBenchmarks readResults(const std::string& file);

/// Times of the paths against megapixels and against markers, as an SVG picture with logarithmic axes.
///
/// @throws std::runtime_error  where the file cannot be written.
void plotGrowth(const Results& results, const std::string& file);

}  // namespace kestrune::bench
