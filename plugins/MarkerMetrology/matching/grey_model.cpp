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
constexpr double kWrongPolarity = -30;  // a rule: no light makes a dark marker a bright one
// A share of pairs differs by anything, in the light of a lamp or behind a scratch.
constexpr double kAny = 0.05, kAnyDensity = 0.2;

double ofRatio(double x, double width) {
    return (1 - kAny) * longTailed(x, width) + kAny * kAnyDensity;
}

bool hasLevels(const Sightline& line) {
    return std::isfinite(line.contrast) && line.contrast != 0;
}

}  // namespace

GreyModel::GreyModel(const Views& views) : views_(views), spread_(kFirstSpread) {
    for (std::size_t eye = 0; eye < 2; ++eye)
        if (std::none_of(views.lines[eye].begin(), views.lines[eye].end(), hasLevels)) return;
    isKnown_ = true;
    setChances();
}

void GreyModel::learn(const std::vector<std::array<int, 2>>& pairs) {
    if (!isKnown_) return;
    std::vector<double> ratios;
    for (const auto& [left, right] : pairs) {
        const Sightline &a = views_.lines[0][static_cast<std::size_t>(left)],
                        &b = views_.lines[1][static_cast<std::size_t>(right)];
        if (hasLevels(a) && hasLevels(b) && (a.contrast > 0) == (b.contrast > 0))
            ratios.push_back(std::log(a.contrast / b.contrast));
    }
    if (ratios.size() < kFewestRatios) return;
    factor_ = medianOf(ratios, 0);
    for (double& ratio : ratios) ratio = std::abs(ratio - factor_);
    spread_ = std::max(kLeastSpread, 2 * medianOf(ratios, 0));
    setChances();
}

void GreyModel::setChances() {
    chances_.assign(views_.lines[0].size(), 0.0);
    for (std::size_t i = 0; i < chances_.size(); ++i) {
        const Sightline& a = views_.lines[0][i];
        if (!hasLevels(a)) continue;
        double sum = 0;
        int count = 0;
        for (const Sightline& b : views_.lines[1]) {
            if (!hasLevels(b)) continue;
            ++count;
            if ((a.contrast > 0) == (b.contrast > 0))
                sum += ofRatio(std::log(a.contrast / b.contrast) - factor_, spread_);
        }
        chances_[i] = std::log((sum + kAny * kAnyDensity) / (count + 1));
    }
}

double GreyModel::evidence(int left, int right) const {
    if (!isKnown_) return 0;
    const Sightline &a = views_.lines[0][static_cast<std::size_t>(left)],
                    &b = views_.lines[1][static_cast<std::size_t>(right)];
    if (!hasLevels(a) || !hasLevels(b)) return 0;
    if ((a.contrast > 0) != (b.contrast > 0)) return kWrongPolarity;
    return std::log(ofRatio(std::log(a.contrast / b.contrast) - factor_, spread_)) -
           chances_[static_cast<std::size_t>(left)];
}

}  // namespace kestrune::matching
