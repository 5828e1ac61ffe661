// SPDX-License-Identifier: Apache-2.0
#include "results.h"

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>
#include <regex>
#include <stdexcept>

#include "bench_names.h"

namespace kestrune::bench {
namespace {

using nlohmann::json;

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

/// The benchmark library writes the relative spread of a counter that is always 0 as a bare NaN, which JSON does not
/// have.
json parse(std::istream& file) {
    const std::string text{std::istreambuf_iterator<char>(file), {}};
    return json::parse(std::regex_replace(text, std::regex(": -?(NaN|Infinity)"), ": null"));
}

}  // namespace

bool Result::isUnsteady() const {
    const auto [least, most] = std::minmax_element(milliseconds.begin(), milliseconds.end());
    return *most - *least > kLargestSpread * median(milliseconds);
}

double median(std::vector<double> values) {
    const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
    std::nth_element(values.begin(), middle, values.end());
    if (values.size() % 2 == 1) return *middle;
    return (*middle + *std::max_element(values.begin(), middle)) / 2;
}

RunOfBenchmarks readResults(const std::string& file) {
    std::ifstream stream(file);
    if (!stream) throw std::runtime_error("cannot be read");
    const json document = parse(stream);
    RunOfBenchmarks run;
    for (const json& entry : document.at("benchmarks")) addRun(entry, run.results);
    const json& context = document.at("context");
    run.processors = context.value("num_cpus", 0);
    run.megahertz = context.value("mhz_per_cpu", 0);
    run.openCv = context.value("opencv", "?");
    run.threads = context.value("threads", "?");
    return run;
}

}  // namespace kestrune::bench
