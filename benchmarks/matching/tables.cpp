// SPDX-License-Identifier: Apache-2.0
#include "tables.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <map>
#include <stdexcept>

namespace kestrune::bench {
namespace {

constexpr std::size_t kObjections = 6;  ///< of `MatchObjection`

/// The class of a value among limits, numbered so that classes sort.
std::string classOf(double value, const std::vector<double>& limits, const char* unit) {
    std::size_t k = 0;
    while (k < limits.size() && value >= limits[k]) ++k;
    if (k == 0) return fmt::format("{}. below {:g}{}", k + 1, limits.front(), unit);
    if (k == limits.size()) return fmt::format("{}. {:g}{} and more", k + 1, limits.back(), unit);
    return fmt::format("{}. {:g} to {:g}{}", k + 1, limits[k - 1], limits[k], unit);
}

using Grouping = std::function<std::string(const SceneScore&)>;

const std::map<std::string, Grouping>& groupingsByName() {
    static const std::map<std::string, Grouping> all{
        {"layout", [](const SceneScore& s) { return nameOf(s.kind.layout); }},
        {"stance", [](const SceneScore& s) { return nameOf(s.kind.stance); }},
        {"rig", [](const SceneScore& s) { return nameOf(s.kind.rig); }},
        {"noise",
         [](const SceneScore& s) {
             return classOf(s.kind.noise, {0.05, 0.1, 0.2}, " px");
         }},
        {"spread", [](const SceneScore& s) { return fmt::format("sigmas x {:g}", s.kind.noiseSpread); }},
        {"markers",
         [](const SceneScore& s) {
             return classOf(s.common, {20, 50, 100, 200}, " in common");
         }},
        {"radius",
         [](const SceneScore& s) {
             return classOf(s.kind.radius, {6, 10, 16}, " px");
         }},
        {"sizes",
         [](const SceneScore& s) {
             return s.kind.sizes == 0 ? std::string("continuous sizes") : fmt::format("{} sizes", s.kind.sizes);
         }},
        {"single",
         [](const SceneScore& s) {
             return classOf(s.kind.single, {0.001, 0.1, 0.2, 0.3}, "");
         }},
        {"false",
         [](const SceneScore& s) {
             return classOf(s.kind.falseShare, {0.001, 0.1, 0.2}, "");
         }},
        {"levels", [](const SceneScore& s) { return s.kind.levels ? "with levels" : "without levels"; }},
        {"angle",
         [](const SceneScore& s) {
             return classOf(s.kind.axesAngle, {8, 12, 17}, " degrees");
         }},
        {"tilt",
         [](const SceneScore& s) {
             return classOf(s.kind.tilt, {1, 15, 30}, " degrees");
         }},
    };
    return all;
}

struct Group {
    std::string matcher;
    bool tellsProbabilities = true;
    int scenes = 0, withWrong = 0, withWrongSure = 0, withNearlySure = 0;
    long common = 0, nearlySure = 0;
    std::array<Tally, kLevels.size()> sure{};
    Tally best, pairs;
    std::vector<double> seconds;

    void add(const SceneScore& score) {
        matcher = score.matcher;
        tellsProbabilities = score.tellsProbabilities;
        ++scenes;
        withWrong += score.pairs.wrong > 0;
        withWrongSure += score.sure[0].wrong > 0;
        withNearlySure += score.nearlySure > 0;
        common += score.common;
        nearlySure += score.nearlySure;
        for (std::size_t k = 0; k < kLevels.size(); ++k) sure[k].add(score.sure[k]);
        best.add(score.best);
        pairs.add(score.pairs);
        seconds.push_back(score.seconds);
    }

    double percent(long count) const {
        return common > 0 ? 100. * static_cast<double>(count) / static_cast<double>(common) : 0;
    }

    std::string times() {
        std::sort(seconds.begin(), seconds.end());
        const auto at = [&](double share) {
            return 1000 * seconds[static_cast<std::size_t>(share * static_cast<double>(seconds.size() - 1))];
        };
        return fmt::format("{:.1f} | {:.1f} | {:.1f}", at(0.5), at(0.95), at(1));
    }
};

void printGroup(const std::string& name, Group& group) {
    fmt::print("| {} | {} | {} | {} |", name, group.matcher, group.scenes, group.common);
    for (std::size_t k = 0; k < kLevels.size(); ++k) {
        const Tally& tally = group.sure[k];
        const bool tellsOff = k == 0;
        if (!group.tellsProbabilities)
            fmt::print(" | |{}", tellsOff ? " |" : "");
        else
            fmt::print(" {:.2f} | {} |{}", group.percent(tally.right), tally.wrong,
                       tellsOff ? fmt::format(" {} |", tally.off) : "");
    }
    const double share = 100. / group.scenes;
    fmt::print(" {:.3f} | {:.3f} | {} | {} | {:.1f} | {:.2f} | {} |\n", group.percent(group.best.right),
               group.percent(group.best.wrong), group.pairs.right, group.pairs.wrong, share * group.withWrong,
               share * group.withWrongSure, group.times());
}

std::vector<std::string> matchersIn(const std::vector<SceneScore>& scores) {
    std::vector<std::string> names;
    for (const SceneScore& score : scores)
        if (std::find(names.begin(), names.end(), score.matcher) == names.end()) names.push_back(score.matcher);
    return names;
}

bool tellProbabilities(const std::vector<SceneScore>& scores) {
    return std::any_of(scores.begin(), scores.end(), [](const SceneScore& one) { return one.tellsProbabilities; });
}

void printClaims(const std::string& name, const Claims& all, const Claims& accepted) {
    if (all.count == 0) return;
    fmt::print("| {}", name);
    for (const Claims& claims : {all, accepted})
        fmt::print(" | {} | {:.4g} | {} | {}", claims.count, claims.told, claims.happened,
                   claims.count > 0 ? fmt::format("{:.2f}", static_cast<double>(claims.happened) / claims.told) : "");
    fmt::print(" |\n");
}

}  // namespace

const std::vector<std::string>& groupings() {
    static const std::vector<std::string> names = [] {
        std::vector<std::string> all;
        for (const auto& [name, grouping] : groupingsByName()) all.push_back(name);
        return all;
    }();
    return names;
}

void printPairs(const std::vector<SceneScore>& scores, const std::string& grouping) {
    const auto chosen = groupingsByName().find(grouping);
    if (!grouping.empty() && chosen == groupingsByName().end())
        throw std::invalid_argument(fmt::format("'{}' is nothing to group by", grouping));
    fmt::print(
        "| scenes | matcher | number | both see | 0.999 % | wrong | off | 0.9999 % | wrong | 0.99999 % | wrong | best "
        "right % | wrong % | right pairs | wrong pairs | scenes with one % | sure one % | ms | 95 % | most "
        "|\n|---|---|{}\n",
        "---:|---:|---:|---:|---:|---:|---:|---:|---:|---:|---:|---:|---:|---:|---:|---:|");
    for (const std::string& matcher : matchersIn(scores)) {
        std::map<std::string, Group> groups;
        Group whole;
        for (const SceneScore& score : scores) {
            if (score.matcher != matcher) continue;
            if (!grouping.empty()) groups[chosen->second(score)].add(score);
            whole.add(score);
        }
        for (auto& [name, group] : groups) printGroup(name, group);
        printGroup("**all**", whole);
    }
    fmt::print("\n");
}

void printReliability(const std::vector<SceneScore>& scores) {
    for (const std::string& matcher : matchersIn(scores)) {
        Reliability all, accepted;
        for (const SceneScore& score : scores) {
            if (score.matcher != matcher || !score.tellsProbabilities) continue;
            all.add(score.reliability);
            if (score.isAccepted()) accepted.add(score.reliability);
        }
        if (std::all_of(all.likely.begin(), all.likely.end(), [](const Claims& one) { return one.count == 0; }))
            continue;
        fmt::print(
            "Claims of {}: all exposures, then those without an objection.\n\n"
            "| said | claims | told | happened | ratio | claims | told | happened | ratio |\n|---|{}\n",
            matcher, "---:|---:|---:|---:|---:|---:|---:|---:|");
        for (std::size_t k = 0; k < kDecades; ++k)
            printClaims(fmt::format("wrong by {}", decadeName(k)), all.likely[k], accepted.likely[k]);
        for (std::size_t k = kDecades; k-- > 0;)
            printClaims(fmt::format("right by {}", decadeName(k)), all.unlikely[k], accepted.unlikely[k]);
        fmt::print("\n");
    }
}

void printObjections(const std::vector<SceneScore>& scores) {
    if (!tellProbabilities(scores)) return;
    fmt::print("| scenes | matcher |");
    for (std::size_t k = 0; k < kObjections; ++k) fmt::print(" {} |", nameOf(static_cast<MatchObjection>(k)));
    fmt::print(" scenes with a pair of 0.99 | such pairs | sure pairs |\n|---|---|");
    for (std::size_t k = 0; k < kObjections + 3; ++k) fmt::print("---:|");
    fmt::print("\n");
    for (const std::string& matcher : matchersIn(scores)) {
        std::array<int, kObjections> counts{};
        Group whole;
        Tally sure;
        for (const SceneScore& score : scores) {
            if (score.matcher != matcher || !score.tellsProbabilities) continue;
            ++counts[static_cast<std::size_t>(score.objection)];
            whole.add(score);
            sure.add(score.sure[0]);
        }
        if (whole.scenes == 0) continue;
        fmt::print("| {} | {} |", whole.scenes, matcher);
        for (const int count : counts) fmt::print(" {} |", count);
        fmt::print(" {} | {} | {} |\n", whole.withNearlySure, whole.nearlySure, sure.right + sure.wrong);
    }
    fmt::print("\n");
}

void printMoved(const std::vector<SceneScore>& scores) {
    if (!tellProbabilities(scores)) return;
    struct Line {
        int scenes = 0, noticed = 0, objected = 0, within = 0;
        long common = 0;
        Tally sure;
        std::vector<double> ratios;
    };
    std::map<std::string, Line> lines;
    for (const SceneScore& score : scores) {
        if (!score.tellsProbabilities) continue;
        const std::string size = classOf(score.moved / score.kind.noise, {0.3, 1, 3, 10, 30}, "");
        for (const std::string& name : {size, std::string("all")}) {
            Line& line = lines[name];
            ++line.scenes;
            line.objected += score.objection == MatchObjection::rigMoved;
            line.common += score.common;
            line.sure.add(score.sure[0]);
            if (score.objection != MatchObjection::rigMoved && !score.told.found) continue;
            ++line.noticed;
            if (score.moved == 0) continue;
            const double ratio = score.told.size / score.moved;
            line.within += std::abs(ratio - 1) <= 0.1;
            line.ratios.push_back(ratio);
        }
    }
    fmt::print(
        "| pattern / noise | scenes | noticed % | objected % | size within 10 % | median size / true | sure % | "
        "wrong |\n|---|---:|---:|---:|---:|---:|---:|---:|\n");
    for (auto& [name, line] : lines) {
        const double share = 100. / line.scenes;
        std::sort(line.ratios.begin(), line.ratios.end());
        fmt::print("| {} | {} | {:.1f} | {:.1f} | {:.1f} | {} | {:.2f} | {} |\n", name, line.scenes,
                   share * line.noticed, share * line.objected,
                   line.noticed > 0 ? 100. * line.within / line.noticed : 0,
                   line.ratios.empty() ? "" : fmt::format("{:.3f}", line.ratios[line.ratios.size() / 2]),
                   line.common > 0 ? 100. * static_cast<double>(line.sure.right) / static_cast<double>(line.common) : 0,
                   line.sure.wrong);
    }
    fmt::print("\n");
}

void printWrong(const std::vector<SceneScore>& scores) {
    for (const SceneScore& score : scores)
        for (const WrongPair& pair : score.wrong)
            fmt::print(
                "scene {}, {}: left {} (marker {}), right {} (marker {}), 1 - p = {:.3g}; {} + {}, {} in common; {}\n",
                score.number, score.matcher, pair.left, pair.identity[0], pair.right, pair.identity[1],
                1 - pair.probability, score.markers[0], score.markers[1], score.common, textOf(score.kind));
}

void printLost(const std::vector<SceneScore>& scores) {
    for (const SceneScore& score : scores) {
        if (score.lost.empty()) continue;
        fmt::print("scene {}, {}: {} of {} in common are not sure, {} + {}, {}; {}\n", score.number, score.matcher,
                   score.lost.size(), score.common, score.markers[0], score.markers[1], nameOf(score.objection),
                   textOf(score.kind));
        if (!score.isAccepted()) continue;
        for (const LostMarker& lost : score.lost)
            fmt::print(
                "    marker {}, left {} ({}), right {} ({}), p = {:.4g}{}; off by {:.3f} and {:.3f} px, chi-square "
                "{:.1f} and "
                "{:.1f}, residuals {:.2f} and {:.2f}; epipolar {:.3f} +- {:.3f}, shape {:.1f}, geometry {:.1f}, radius "
                "{:.1f}, depth {:.1f}, normal {:.1f}, grey {:.1f}\n",
                lost.number, lost.left, nameOf(lost.status[0]), lost.right, nameOf(lost.status[1]), lost.probability,
                lost.isBest ? "" : ", not in the assignment", lost.off[0], lost.off[1], lost.square[0], lost.square[1],
                lost.residual[0], lost.residual[1], lost.cues.epipolar, lost.cues.epipolarSigma, lost.cues.shape,
                lost.cues.geometry, lost.cues.radius, lost.cues.depth, lost.cues.normal, lost.cues.grey);
    }
}

}  // namespace kestrune::bench
