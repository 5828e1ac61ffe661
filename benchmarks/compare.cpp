// SPDX-License-Identifier: Apache-2.0
//
// Reads a result file of the benchmark program and prints Markdown tables: medians, ratios within this run and quality
// on one scene, ratios to the floors on all.
#include <fmt/format.h>

#include <algorithm>
#include <cstdio>
#include <exception>
#include <fstream>
#include <iterator>
#include <limits>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <regex>
#include <stdexcept>
#include <string>
#include <vector>

#include "bench_names.h"

namespace kestrune::bench {
namespace {

using nlohmann::json;

// Repetitions that lie farther apart than this share of their median tell of a machine that had other work to do.
constexpr double kLargestSpread = 0.25;

struct Result {
    std::vector<double> milliseconds;     ///< wall time of one image, one a repetition
    std::vector<double> cpuMilliseconds;  ///< processor time of all threads
    std::optional<double> recall, falseOnes, centreRms;
};

/// One image: results of everything that ran on it, by name.
struct Scene {
    int width = 0, height = 0, markers = 0;
    bool operator<(const Scene& other) const {
        const auto pixels = [](const Scene& s) { return static_cast<long long>(s.width) * s.height; };
        return std::pair{pixels(*this), markers} < std::pair{pixels(other), other.markers};
    }
};
using ResultsByName = std::map<std::string, Result, std::less<>>;
using Results = std::map<Scene, ResultsByName>;

double median(std::vector<double> values) {
    const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
    std::nth_element(values.begin(), middle, values.end());
    if (values.size() % 2 == 1) return *middle;
    return (*middle + *std::max_element(values.begin(), middle)) / 2;
}

bool isUnsteady(const Result& result) {
    const auto [least, most] = std::minmax_element(result.milliseconds.begin(), result.milliseconds.end());
    return *most - *least > kLargestSpread * median(result.milliseconds);
}

std::optional<double> counterOf(const json& run, std::string_view name) {
    const auto found = run.find(std::string(name));
    if (found == run.end() || !found->is_number()) return std::nullopt;
    return found->get<double>();
}

void addRun(const json& run, Results& results) {
    // What is summed up over repetitions is summed up here; names are "what/WIDTHxHEIGHT/markers/..." .
    if (run.value("run_type", "iteration") != "iteration") return;
    const std::string name = run.at("name");
    const std::size_t slash = name.find('/');
    Scene scene;
    if (slash == std::string::npos ||
        std::sscanf(name.c_str() + slash, "/%dx%d/%d", &scene.width, &scene.height, &scene.markers) != 3)
        throw std::runtime_error("unknown benchmark name " + name);
    Result& result = results[scene][name.substr(0, slash)];
    if (run.value("error_occurred", false))
        throw std::runtime_error(name + ": " + run.value("error_message", "failed"));
    if (run.at("time_unit") != "ms") throw std::runtime_error(name + " is not in milliseconds");
    result.milliseconds.push_back(run.at("real_time"));
    result.cpuMilliseconds.push_back(run.at("cpu_time"));
    result.recall = counterOf(run, kRecallCounter);
    result.falseOnes = counterOf(run, kFalseCounter);
    result.centreRms = counterOf(run, kCentreRmsCounter);
}

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

void printPreamble(const json& context, const Results& results) {
    std::size_t least = std::numeric_limits<std::size_t>::max(), most = 0, measured = 0, unsteady = 0;
    for (const auto& [scene, byName] : results) {
        for (const auto& [name, result] : byName) {
            least = std::min(least, result.milliseconds.size());
            most = std::max(most, result.milliseconds.size());
            ++measured;
            if (isUnsteady(result)) ++unsteady;
        }
    }
    if (measured == 0) throw std::runtime_error("no times in the file");
    fmt::print("Medians of {} repetitions of one run; {} processors at {} MHz, OpenCV {}, {} threads.\n",
               least == most ? std::to_string(least) : fmt::format("{} to {}", least, most),
               context.value("num_cpus", 0), context.value("mhz_per_cpu", 0), context.value("opencv", "?"),
               context.value("threads", "?"));
    fmt::print(
        "\"/ name\" is the time divided by that of the floor, build or detector named: below 1 is faster. CPU: time "
        "of all threads together.\n");
    if (unsteady > 0)
        fmt::print("{} of {} times spread by more than {:.0f} % between repetitions: the machine was not idle.\n",
                   unsteady, measured, kLargestSpread * 100);
    fmt::print("\n");
}

/// The benchmark library writes the relative spread of a counter that is always 0 as a bare NaN, which JSON does not
/// have.
json parseResults(std::istream& file) {
    const std::string text{std::istreambuf_iterator<char>(file), {}};
    return json::parse(std::regex_replace(text, std::regex(": -?(NaN|Infinity)"), ": null"));
}

int run(const char* path) {
    std::ifstream file(path);
    if (!file) throw std::runtime_error(std::string("cannot read ") + path);
    const json document = parseResults(file);
    Results results;
    for (const json& entry : document.at("benchmarks")) addRun(entry, results);
    printPreamble(document.at("context"), results);
    const auto typical = typicalScene(results);
    print(tableOf(typical->first, typical->second));
    if (results.size() > 1) printOverScenes(results);
    return 0;
}

}  // namespace
}  // namespace kestrune::bench

int main(int argc, char** argv) {
    if (argc != 2) {
        fmt::print(stderr, "usage: {} RESULT.json\n", argc > 0 ? argv[0] : "kestrune_compare");
        return 2;
    }
    try {
        return kestrune::bench::run(argv[1]);
    } catch (const std::exception& error) {
        fmt::print(stderr, "{}: {}\n", argv[1], error.what());
        return 1;
    }
}
