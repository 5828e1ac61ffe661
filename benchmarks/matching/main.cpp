// SPDX-License-Identifier: Apache-2.0
//
// How far pairs of markers can be trusted: generated scenes of known truth, matched by probability and by the matchers
// without one.
#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <exception>
#include <opencv2/core/utility.hpp>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "check.h"
#include "photographs.h"
#include "plot.h"
#include "tables.h"

namespace kestrune::bench {
namespace {

constexpr const char* kUsage =
    "usage: kestrune_matching [--kind all|sigmas|outliers|turned|exchanged|foreign|nothing|shifted|calibration] "
    "[--scenes N]\n"
    "                         [--seed N] [--first N] [--radii] [--depth] [--sure P] [--as-told]\n"
    "                         [--matcher trusted|conics|constellation|fallback|centres|all]\n"
    "                         [--by GROUPING] [--each] [--photographs] [--plot FILE]\n"
    "                         [--markers N] [--threads N]\n"
    "       kestrune_matching --check\n"
    "  --kind, --matcher  names, separated by commas (all; trusted)\n"
    "  --scenes   how many of each kind (200)\n"
    "  --seed     of the series\n"
    "  --first    number of the first scene in its series\n"
    "  --markers  on each object, as far as there is room for them\n"
    "  --radii    tells the nominal radii, --depth a range that holds all markers\n"
    "  --sure     least probability of a sure pair (0.999)\n"
    "  --as-told  believes the sigmas as they are told\n"
    "  --by       a row for each group: layout, stance, rig, noise, spread, markers, radius, sizes, single, false,\n"
    "             levels, angle, tilt\n"
    "  --each     a line for each wrong pair that was said to be sure, and for each marker of both eyes that is in "
    "none\n"
    "  --plot     writes a picture (SVG) of what probabilities came to\n"
    "  --photographs  renders both images, finds and refines the markers\n"
    "  --check    whether the scenes are what they say\n";

struct Options {
    std::string kind = "all", matcher = "trusted", grouping, plot;
    Told told;
    int scenes = 200, first = 0, threads = 1;
    int markers = 0;  ///< on each object; 0: as the kind has it
    std::uint64_t seed = 1;
    bool each = false, check = false, photographs = false;
};

bool takeFlag(Options& options, const std::string& name) {
    if (name == "--radii")
        options.told.radii = true;
    else if (name == "--depth")
        options.told.depth = true;
    else if (name == "--as-told")
        options.told.estimateSigmas = false;
    else if (name == "--each")
        options.each = true;
    else if (name == "--photographs")
        options.photographs = true;
    else if (name == "--check")
        options.check = true;
    else
        return false;
    return true;
}

void takeValue(Options& options, const std::string& name, const std::string& value) {
    if (name == "--kind")
        options.kind = value;
    else if (name == "--matcher")
        options.matcher = value;
    else if (name == "--by")
        options.grouping = value;
    else if (name == "--plot")
        options.plot = value;
    else if (name == "--scenes")
        options.scenes = std::stoi(value);
    else if (name == "--first")
        options.first = std::stoi(value);
    else if (name == "--markers")
        options.markers = std::stoi(value);
    else if (name == "--threads")
        options.threads = std::stoi(value);
    else if (name == "--seed")
        options.seed = std::stoull(value);
    else if (name == "--sure")
        options.told.sure = std::stod(value);
    else
        throw std::invalid_argument(fmt::format("{} is no option", name));
}

Options parse(int argc, char** argv) {
    Options options;
    for (int k = 1; k < argc; ++k) {
        const std::string name = argv[k];
        if (takeFlag(options, name)) continue;
        if (k + 1 == argc) throw std::invalid_argument(fmt::format("{} is no option, or lacks its value", name));
        takeValue(options, name, argv[++k]);
    }
    if (options.scenes < 1 || options.threads < 1) throw std::invalid_argument("--scenes and --threads are 1 or more");
    const auto& names = groupings();
    if (!options.grouping.empty() && std::find(names.begin(), names.end(), options.grouping) == names.end())
        throw std::invalid_argument(fmt::format("'{}' is nothing to group by", options.grouping));
    return options;
}

std::vector<std::string> splitNames(const std::string& names) {
    std::vector<std::string> all;
    for (std::size_t at = 0; at <= names.size();) {
        const std::size_t end = std::min(names.find(',', at), names.size());
        all.push_back(names.substr(at, end - at));
        at = end + 1;
    }
    return all;
}

Trouble troubleOf(const std::string& name) {
    const auto& names = troubleNames();
    const auto found = std::find(names.begin(), names.end(), name);
    if (found == names.end()) throw std::invalid_argument(fmt::format("'{}' is no kind", name));
    return static_cast<Trouble>(found - names.begin());
}

std::vector<SceneScore> scoresOf(const Options& options, Trouble trouble) {
    const std::vector<Matcher> matchers = matchersOf(options.matcher);
    std::vector<std::vector<SceneScore>> parts(static_cast<std::size_t>(options.scenes));
    std::exception_ptr failure;
#pragma omp parallel for schedule(dynamic) num_threads(options.threads)
    for (int k = 0; k < options.scenes; ++k) {
        try {
            const int number = options.first + k;
            const std::uint64_t seed = sceneSeed(options.seed, number);
            SceneKind kind = drawKind(seed, trouble);
            if (options.markers > 0) kind.markers = options.markers;
            const MatchingScene scene = options.photographs ? makePhotographedScene(kind, seed) : makeScene(kind, seed);
            for (const Matcher& matcher : matchers)
                parts[static_cast<std::size_t>(k)].push_back(judge(scene, number, matcher, options.told));
        } catch (...) {
#pragma omp critical
            failure = std::current_exception();
        }
    }
    if (failure) std::rethrow_exception(failure);
    std::vector<SceneScore> scores;
    for (const auto& part : parts) scores.insert(scores.end(), part.begin(), part.end());
    return scores;
}

std::vector<SceneScore> runKind(const Options& options, const std::string& name) {
    const Trouble trouble = troubleOf(name);
    const auto start = std::chrono::steady_clock::now();
    const std::vector<SceneScore> scores = scoresOf(options, trouble);
    fmt::print("## {}\n\n", name);
    printPairs(scores, options.grouping);
    printReliability(scores);
    printObjections(scores);
    if (trouble == Trouble::turned || trouble == Trouble::calibration) printMoved(scores);
    if (options.each) printWrong(scores), printLost(scores);
    const std::chrono::duration<double> taken = std::chrono::steady_clock::now() - start;
    fmt::print(stderr, "{}: {} scenes, {:.1f} s\n", name, options.scenes, taken.count());
    return scores;
}

int run(const Options& options) {
    cv::setNumThreads(1);
    if (options.check) return checkScenes() ? 0 : 1;
    const std::vector<std::string> kinds = splitNames(options.kind);
    for (const std::string& kind : kinds) troubleOf(kind);
    std::vector<std::pair<std::string, std::vector<SceneScore>>> series;
    for (const std::string& kind : kinds) series.emplace_back(kind, runKind(options, kind));
    if (!options.plot.empty()) plotReliability(options.plot, series);
    return 0;
}

}  // namespace
}  // namespace kestrune::bench

int main(int argc, char** argv) {
    try {
        return kestrune::bench::run(kestrune::bench::parse(argc, argv));
    } catch (const std::exception& error) {
        fmt::print(stderr, "{}\n{}", error.what(), kestrune::bench::kUsage);
        return 2;
    }
}
