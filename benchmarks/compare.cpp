// SPDX-License-Identifier: Apache-2.0
//
// Reads a result file of the benchmark program and prints Markdown tables: medians, ratios within this run and quality
// on one scene, ratios to the floors on all.
#include <fmt/format.h>

#include <algorithm>
#include <cstdio>
#include <exception>
#include <limits>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "bench_names.h"
#include "results.h"

namespace kestrune::bench {
namespace {

using Row = std::vector<std::string>;

std::string decimals(const std::optional<double>& value, int places) {
    return value ? fmt::format("{:.{}f}", *value, places) : "-";
}

/// Time over that of the other one, with as many places as tell apart what differs.
std::string ratio(const Result& result, const ResultsByName& scene, std::string_view other,
                  std::vector<double> Result::*times) {
    const auto found = scene.find(other);
    if (found == scene.end()) return "-";
    const double value = median(result.*times) / median(found->second.*times);
    return decimals(value, value < 0.1 ? 3 : 2);
}

Row headings() {
    Row row{"what", "image", "markers", "ms", "/ floor", "CPU / floor", "/ other build", "CPU / other build"};
    for (const std::string_view rival : kRivalTitles) row.push_back(fmt::format("/ {}", rival));
    row.insert(row.end(), {"recall %", "false", "centre RMS px"});
    return row;
}

/// The row of one candidate, or nothing if it did not run on this scene.
std::optional<Row> rowOf(const Scene& scene, const ResultsByName& results, std::string_view name,
                         std::string_view title, std::string_view floor) {
    const auto found = results.find(name);
    if (found == results.end()) return std::nullopt;
    const Result& result = found->second;
    Row row{std::string(title), fmt::format("{}x{}", scene.width, scene.height), std::to_string(scene.markers)};
    const double time = median(result.milliseconds);
    row.push_back(decimals(time, time < 10 ? 2 : 1));
    const std::string other = std::string(kOtherBuild) + std::string(name);
    row.push_back(ratio(result, results, floor, &Result::milliseconds));
    row.push_back(ratio(result, results, floor, &Result::cpuMilliseconds));
    row.push_back(ratio(result, results, other, &Result::milliseconds));
    row.push_back(ratio(result, results, other, &Result::cpuMilliseconds));
    if (floor.empty()) {
        row.resize(row.size() + kRivalNames.size(), "-");
    } else {
        for (const std::string_view rival : kRivalNames)
            row.push_back(ratio(result, results, rival, &Result::milliseconds));
    }
    row.push_back(decimals(result.recall ? std::optional(*result.recall * 100) : std::nullopt, 1));
    row.push_back(decimals(result.falseOnes, 0));
    row.push_back(decimals(result.centreRms, 4));
    return row;
}

/// Everything that ran on one scene.
std::vector<Row> tableOf(const Scene& scene, const ResultsByName& byName) {
    std::vector<Row> table{headings()};
    const auto add = [&table](std::optional<Row> row) {
        if (row) table.push_back(std::move(*row));
    };
    for (const PathName& path : kPathNames) add(rowOf(scene, byName, path.name, path.name, path.floor));
    for (std::size_t i = 0; i < kRivalNames.size(); ++i) add(rowOf(scene, byName, kRivalNames[i], kRivalTitles[i], ""));
    return table;
}

void print(const std::vector<Row>& table) {
    std::vector<std::size_t> widths(table.front().size(), 0);
    for (const Row& row : table)
        for (std::size_t i = 0; i < row.size(); ++i) widths[i] = std::max(widths[i], row[i].size());
    const auto printRow = [&widths](const Row& row) {
        std::string line = "|";
        // Names to the left, numbers to the right.
        for (std::size_t i = 0; i < row.size(); ++i)
            line += i == 0 ? fmt::format(" {:<{}} |", row[i], widths[i]) : fmt::format(" {:>{}} |", row[i], widths[i]);
        fmt::print("{}\n", line);
    };
    printRow(table.front());
    std::string rule = "|";
    for (std::size_t i = 0; i < widths.size(); ++i) rule += std::string(widths[i] + 1, '-') + (i == 0 ? "-|" : ":|");
    fmt::print("{}\n", rule);
    for (std::size_t i = 1; i < table.size(); ++i) printRow(table[i]);
}

/// One figure of every path on every scene: a path is a row, a scene a column. Rows without any figure are left out.
template <typename Figure>
std::vector<Row> tableOverScenes(const Results& results, const std::string& title, const Figure& figure) {
    std::vector<Row> table{{title}};
    for (const auto& [scene, byName] : results)
        table.front().push_back(fmt::format("{}x{}, {}", scene.width, scene.height, scene.markers));
    for (const PathName& path : kPathNames) {
        Row row{std::string(path.name)};
        for (const auto& [scene, byName] : results) {
            const auto found = byName.find(path.name);
            row.push_back(found == byName.end() ? "-" : figure(found->second, byName, path));
        }
        if (std::any_of(row.begin() + 1, row.end(), [](const std::string& cell) { return cell != "-"; }))
            table.push_back(std::move(row));
    }
    return table;
}

void printOverScenes(const Results& results) {
    const auto show = [&](const std::string& title, const auto& figure) {
        const std::vector<Row> table = tableOverScenes(results, title, figure);
        if (table.size() == 1) return;
        fmt::print("\n");
        print(table);
    };
    show("ms", [](const Result& result, const ResultsByName&, const PathName&) {
        const double time = median(result.milliseconds);
        return decimals(time, time < 10 ? 2 : 1);
    });
    show("time / floor", [](const Result& result, const ResultsByName& byName, const PathName& path) {
        return ratio(result, byName, path.floor, &Result::milliseconds);
    });
    show("time / other build", [](const Result& result, const ResultsByName& byName, const PathName& path) {
        return ratio(result, byName, std::string(kOtherBuild) + std::string(path.name), &Result::milliseconds);
    });
}

/// The scene that stands for all: five megapixels with 120 markers or, where that was not run, the middle one.
Results::const_iterator typicalScene(const Results& results) {
    const auto typical = results.find({2448, 2048, 120});
    return typical != results.end() ? typical
                                    : std::next(results.begin(), static_cast<std::ptrdiff_t>(results.size() / 2));
}

void printPreamble(const RunOfBenchmarks& run) {
    std::size_t least = std::numeric_limits<std::size_t>::max(), most = 0, measured = 0, unsteady = 0;
    for (const auto& [scene, byName] : run.results) {
        for (const auto& [name, result] : byName) {
            least = std::min(least, result.milliseconds.size());
            most = std::max(most, result.milliseconds.size());
            ++measured;
            if (result.isUnsteady()) ++unsteady;
        }
    }
    if (measured == 0) throw std::runtime_error("no times in the file");
    fmt::print("Medians of {} repetitions of one run; {} processors at {} MHz, OpenCV {}, {} threads.\n",
               least == most ? std::to_string(least) : fmt::format("{} to {}", least, most), run.processors,
               run.megahertz, run.openCv, run.threads);
    fmt::print(
        "\"/ name\" is the time divided by that of the floor, build or detector named: below 1 is faster. CPU: time "
        "of all threads together.\n");
    if (unsteady > 0)
        fmt::print("{} of {} times spread by more than {:.0f} % between repetitions: the machine was not idle.\n",
                   unsteady, measured, kLargestSpread * 100);
    fmt::print("\n");
}

int run(const char* path) {
    const RunOfBenchmarks run = readResults(path);
    const Results& results = run.results;
    printPreamble(run);
    const auto typical = typicalScene(results);
    print(tableOf(typical->first, typical->second));
    if (results.size() > 1) printOverScenes(results);
    return 0;
}

}  // namespace
}  // namespace kestrune::bench

int main(int argc, char** argv) {
    const bool plots = argc == 4 && std::string_view(argv[1]) == "--plot";
    if (argc != 2 && !plots) {
        fmt::print(stderr, "usage: {0} RESULT.json\n       {0} --plot FILE.svg RESULT.json\n",
                   argc > 0 ? argv[0] : "kestrune_compare");
        return 2;
    }
    const char* const file = argv[argc - 1];
    try {
        if (plots) kestrune::bench::plotGrowth(kestrune::bench::readResults(file).results, argv[2]);
        return plots ? 0 : kestrune::bench::run(file);
    } catch (const std::exception& error) {
        fmt::print(stderr, "{}: {}\n", file, error.what());
        return 1;
    }
}
