// SPDX-License-Identifier: Apache-2.0
#include "settings/setting_rules.h"

#include <algorithm>
#include <string_view>
#include <type_traits>

namespace kestrune {
namespace {

using C = CicrleConfigs;
using R = SettingRule;

constexpr std::array<bool, 5> kEverywhere{true, true, true, true, true};
constexpr std::array<bool, 5> kOnlySimple{true, false, false, false, false};
constexpr std::array<bool, 5> kOnlyRadial{false, true, false, false, false};
constexpr std::array<bool, 5> kOnlyComplex{false, false, false, true, false};
constexpr std::array<bool, 5> kWithThreshold{false, true, false, true, false};  ///< those with an adaptive threshold

template <auto Low, auto High>
bool inOrder(const C& c) {
    return c.*Low <= c.*High;
}

constexpr std::array kRules = {
    R{{"minArea", "maxArea"}, kEverywhere, inOrder<&C::minArea, &C::maxArea>, "wanted: min <= max"},
    R{{"minCircularity", "maxCircularity"},
      kEverywhere,
      [](const C& c) { return c.minCircularity < c.maxCircularity; },
      "wanted: min < max"},
    R{{"minConvexRatio", "maxConvexRatio"},
      kEverywhere,
      inOrder<&C::minConvexRatio, &C::maxConvexRatio>,
      "wanted: min <= max"},
    R{{"cannyLow", "cannyHigh"}, kEverywhere, inOrder<&C::cannyLow, &C::cannyHigh>, "wanted: low <= high"},
    R{{"minDepth", "maxDepth"}, kEverywhere, inOrder<&C::minDepth, &C::maxDepth>, "wanted: min <= max"},
    R{{"minDiameter", "maxDiameter"}, kEverywhere, inOrder<&C::minDiameter, &C::maxDiameter>, "wanted: min <= max"},
    R{{"aperture", nullptr}, kEverywhere, [](const C& c) { return c.aperture % 2 == 1; }, "must be odd"},
    R{{"aperture", nullptr},
      kWithThreshold,
      [](const C& c) { return c.aperture >= 3; },
      "paths radial and complex need 3 or more"},
    // The derivative kernel reaches three sigma, rounded; below this it has no tap left.
    R{{"sigma", nullptr},
      kOnlySimple,
      [](const C& c) { return c.sigma > 1.0 / 6.0; },
      "path simple needs more than 1/6"},
    R{{"minRayRatio", nullptr},
      kOnlyRadial,
      [](const C& c) { return c.minRayRatio > 0; },
      "path radial needs more than 0"},
    R{{"sigma", nullptr}, kOnlyComplex, [](const C& c) { return c.sigma > 0; }, "path complex needs more than 0"},
    R{{"minDiameter", nullptr},
      kOnlyComplex,
      [](const C& c) { return c.minDiameter > 0; },
      "path complex needs more than 0"},
    // Nothing would pass at these ends of the ranges.
    R{{"minAxisRatio", nullptr},
      kOnlyComplex,
      [](const C& c) { return c.minAxisRatio < 1; },
      "path complex needs less than 1"},
    R{{"edgePercentile", nullptr},
      kOnlyComplex,
      [](const C& c) { return c.edgePercentile < 1; },
      "path complex needs less than 1"},
    // At 0 every pixel with a gradient is an edge.
    R{{"nmsFactor", nullptr},
      kOnlyComplex,
      [](const C& c) { return c.nmsFactor > 0; },
      "path complex needs more than 0"},
};

bool isRead(const char* name, Path path) {
    return std::ranges::any_of(settingFields(), [&](const SettingField& field) {
        return std::string_view(name) == field.name && field.isReadBy(path, Use::extraction);
    });
}

bool isInRange(const SettingField& field, const C& configs) {
    return std::visit(
        [&](auto member) {
            using Value = std::remove_cvref_t<decltype(configs.*member)>;
            if constexpr (std::is_arithmetic_v<Value>) {
                const auto value = static_cast<double>(configs.*member);
                return !field.isRanged() || (value >= field.low && value <= field.high);
            }
            return true;
        },
        field.member);
}

}  // namespace

std::span<const SettingRule> settingRules() {
    return kRules;
}

bool areUsable(const CicrleConfigs& configs, Path path) {
    const bool inRange = std::ranges::all_of(settingFields(), [&](const SettingField& field) {
        return !field.isReadBy(path, Use::extraction) || isInRange(field, configs);
    });
    return inRange && std::ranges::all_of(kRules, [&](const SettingRule& rule) {
               return !rule.countsFor(path) || !isRead(rule.fields[0], path) || rule.holds(configs);
           });
}

}  // namespace kestrune
