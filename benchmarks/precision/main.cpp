// SPDX-License-Identifier: Apache-2.0
//
// How near the markers' centres, radii and sigmas come to what their pixels allow: rendered markers of many kinds,
// found by every path, with and without refinement, and by OpenCV's detectors.
#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <opencv2/core/utility.hpp>
#include <stdexcept>
#include <string>
#include <vector>

#include "bound.h"
#include "check.h"
#include "kinds.h"
#include "tables.h"

namespace kestrune::bench {
namespace {

constexpr const char* kUsage =
    "usage: kestrune_precision [--kinds even|shading|halo|neighbours|occlusion|lens|polarity|shot|all] [--markers N]\n"
    "                          [--radius PX] [--seed N] [--threads N] [--perturb PX | --ideal] [--each | --overview] "
    "[--csv FILE] "
    "[--plot FILE]\n"
    "       kestrune_precision --check\n"
    "  --kinds    families of kinds, separated by commas (all)\n"
    "  --markers  of each kind (100)\n"
    "  --radius   only kinds of this radius\n"
    "  --perturb  refine true ellipses with this error instead of what paths and OpenCV's detectors find\n"
    "  --ideal    a fit of the renderer's own image from the truth instead: as good as it gets\n"
    "  --each     a row for each kind\n"
    "  --overview two tables of what all come to\n"
    "  --check    the rendered images and the bound against closed forms and plain sums\n"
    "  --csv      writes one, a line for each kind and detector\n"
    "  --plot     writes a picture (SVG) of the even kinds\n";

struct Options {
    std::string kinds = "all", csv, plot;
    int markers = 100, threads = 1;
    unsigned seed = 1;
    double perturb = 0, radius = 0;
    bool each = false, check = false, ideal = false, overview = false;
};

Options parse(int argc, char** argv) {
    Options options;
    for (int k = 1; k < argc; ++k) {
        const std::string name = argv[k];
        bool* const flag = name == "--each"       ? &options.each
                           : name == "--check"    ? &options.check
                           : name == "--ideal"    ? &options.ideal
                           : name == "--overview" ? &options.overview
                                                  : nullptr;
        if (flag != nullptr) {
            *flag = true;
            continue;
        }
        if (k + 1 == argc) throw std::invalid_argument(fmt::format("{} is no option, or lacks its value", name));
        const std::string value = argv[++k];
        if (name == "--kinds")
            options.kinds = value;
        else if (name == "--csv")
            options.csv = value;
        else if (name == "--plot")
            options.plot = value;
        else if (name == "--markers")
            options.markers = std::stoi(value);
        else if (name == "--threads")
            options.threads = std::stoi(value);
        else if (name == "--seed")
            options.seed = static_cast<unsigned>(std::stoul(value));
        else if (name == "--perturb")
            options.perturb = std::stod(value);
        else if (name == "--radius")
            options.radius = std::stod(value);
        else
            throw std::invalid_argument(fmt::format("{} is no option", name));
    }
    if (options.markers < 1 || options.threads < 1)
        throw std::invalid_argument("--markers and --threads are 1 or more");
    return options;
}

std::vector<Kind> chosenKinds(const Options& options) {
    std::vector<Kind> kinds;
    for (std::size_t at = 0; at <= options.kinds.size();) {
        const std::size_t end = std::min(options.kinds.find(',', at), options.kinds.size());
        for (const Kind& kind : kindsOf(options.kinds.substr(at, end - at)))
            if (options.radius == 0 || options.radius == kind.radius) kinds.push_back(kind);
        at = end + 1;
    }
    return kinds;
}

int run(const Options& options) {
    if (options.check) return checkPictures() ? 0 : 1;
    const std::vector<Kind> kinds = chosenKinds(options);
    std::vector<Detector> detectors;
    if (options.ideal) {
        detectors.push_back(idealFit());
    } else if (options.perturb > 0) {
        detectors.push_back(perturbedTruth(options.perturb));
    } else {
        for (const Detector& detector : pathDetectors()) detectors.push_back(detector);
        for (const Detector& detector : rivalDetectors()) detectors.push_back(detector);
    }
    cv::setNumThreads(1);
    const auto start = std::chrono::steady_clock::now();
    std::vector<std::vector<Row>> rowsOf(kinds.size());
    std::exception_ptr failure;
#pragma omp parallel for schedule(dynamic) num_threads(options.threads)
    for (int k = 0; k < static_cast<int>(kinds.size()); ++k) {
        const auto i = static_cast<std::size_t>(k);
        try {
            rowsOf[i] = judge(kinds[i], detectors, options.markers, options.seed * 100003U + static_cast<unsigned>(k));
        } catch (...) {
#pragma omp critical
            failure = std::current_exception();
        }
    }
    if (failure) std::rethrow_exception(failure);
    std::vector<Row> rows;
    for (const auto& part : rowsOf) rows.insert(rows.end(), part.begin(), part.end());
    if (options.overview)
        printOverview(rows);
    else
        printTables(rows, options.each);
    if (!options.csv.empty()) writeCsv(options.csv, rows);
    if (!options.plot.empty()) plotRatios(options.plot, rows);
    const std::chrono::duration<double> taken = std::chrono::steady_clock::now() - start;
    fmt::print(stderr, "{} kinds, {} markers each, {:.1f} s\n", kinds.size(), options.markers, taken.count());
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
