// SPDX-License-Identifier: Apache-2.0
#include "matchers.h"

#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <stdexcept>

#include "rule_matchers.h"

namespace kestrune::bench {
namespace {

Matched byProbability(const MatchingScene& scene, const Told& told) {
    MatchOptions options;
    if (told.radii) options.radii = scene.radii;
    if (told.depth) options.depth = scene.depth;
    options.sure = told.sure;
    options.estimateSigmas = told.estimateSigmas;
    Matched result;
    const auto start = std::chrono::steady_clock::now();
    result.match = matchMarkers(scene.markers[0], scene.markers[1], scene.rig, options);
    result.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    return result;
}

const std::vector<Matcher>& allMatchers() {
    static const std::vector<Matcher> all = [] {
        std::vector<Matcher> matchers{{"trusted", byProbability}};
        for (const char* const name : {"conics", "constellation", "fallback", "centres"})
            matchers.push_back({name, [name](const MatchingScene& scene, const Told& told) {
                                    return matchByRules(name, scene, told);
                                }});
        return matchers;
    }();
    return all;
}

}  // namespace

std::vector<Matcher> matchersOf(const std::string& names) {
    if (names == "all") return allMatchers();
    std::vector<Matcher> chosen;
    for (std::size_t at = 0; at <= names.size();) {
        const std::size_t end = std::min(names.find(',', at), names.size());
        const std::string name = names.substr(at, end - at);
        const auto& all = allMatchers();
        const auto found = std::find_if(all.begin(), all.end(), [&](const Matcher& one) { return one.name == name; });
        if (found == all.end()) throw std::invalid_argument(fmt::format("'{}' is no matcher", name));
        chosen.push_back(*found);
        at = end + 1;
    }
    return chosen;
}

}  // namespace kestrune::bench
