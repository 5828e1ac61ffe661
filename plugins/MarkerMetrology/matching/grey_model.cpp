// SPDX-License-Identifier: Apache-2.0
#include "matching/grey_model.h"

#include <algorithm>
#include <cmath>

#include "matching/kernels.h"
#include "matching/spread.h"

namespace kestrune::matching {
namespace {

// Before anything is learnt contrasts may differ by half as much again; they scatter by a few percent at least.
constexpr double kFirstSpread = 0.5, kLeastSpread = 0.05;
constexpr std::size_t kFewestRatios = 6;
constexpr double kWrongPolarity = -100;  // more than all else can say: no light makes a dark marker a bright one
// A share of pairs differs by anything, in the light of a lamp or behind a scratch.
constexpr double kAny = 0.05, kAnyDensity = 0.2;

double ofRatio(double x, double width) {
    return (1 - kAny) * longTailed(x, width) + kAny * kAnyDensity;
}

}  // namespace

GreyModel::GreyModel(const Views& views) : spread_(kFirstSpread) {
    std::array<bool, 2> isKnown{};
    for (std::size_t eye = 0; eye < 2; ++eye) {
        for (const Sightline& line : views.lines[eye]) {
            const bool has = std::isfinite(line.contrast) && line.contrast != 0;
            levels_[eye].push_back(has ? Level{line.contrast > 0 ? 1.0 : -1.0, std::log(std::abs(line.contrast))}
                                       : Level{});
            isKnown[eye] = isKnown[eye] || has;
        }
    }
    isKnown_ = isKnown[0] && isKnown[1];
    if (isKnown_) setChances();
}

void GreyModel::learn(const std::vector<std::array<int, 2>>& pairs) {
    if (!isKnown_) return;
    std::vector<double> ratios;
    for (const auto& [left, right] : pairs) {
        const Level &a = at(0, left), &b = at(1, right);
        if (a.sign != 0 && a.sign == b.sign) ratios.push_back(a.logarithm - b.logarithm);
    }
    if (ratios.size() < kFewestRatios) return;
    factor_ = medianOf(ratios, 0);
    for (double& ratio : ratios) ratio = std::abs(ratio - factor_);
    spread_ = std::max(kLeastSpread, 2 * medianOf(ratios, 0));
    setChances();
}

void GreyModel::setChances() {
    chances_.assign(levels_[0].size(), 0.0);
    for (std::size_t i = 0; i < chances_.size(); ++i) {
        const Level& a = levels_[0][i];
        if (a.sign == 0) continue;
        double sum = 0;
        int count = 0;
        for (const Level& b : levels_[1]) {
            if (b.sign == 0) continue;
            ++count;
            if (a.sign == b.sign) sum += ofRatio(a.logarithm - b.logarithm - factor_, spread_);
        }
        chances_[i] = std::log((sum + kAny * kAnyDensity) / (count + 1));
    }
}

double GreyModel::evidence(int left, int right) const {
    if (!isKnown_) return 0;
    const Level &a = at(0, left), &b = at(1, right);
    if (a.sign == 0 || b.sign == 0) return 0;
    if (a.sign != b.sign) return kWrongPolarity;
    return std::log(ofRatio(a.logarithm - b.logarithm - factor_, spread_)) - chances_[static_cast<std::size_t>(left)];
}

}  // namespace kestrune::matching
