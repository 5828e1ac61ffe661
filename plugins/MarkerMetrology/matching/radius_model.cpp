// SPDX-License-Identifier: Apache-2.0
#include "matching/radius_model.h"

#include <algorithm>
#include <cmath>
#include <numbers>

#include "matching/spread.h"

namespace kestrune::matching {
namespace {

// Kernels beside the one that is as wide as the uncertainty: sizes of one kind scatter, and kinds are a factor apart.
constexpr double kKindKernel = 0.03, kBroadSizes = 0.2;
// Markers of another size than the nominal ones. A whole pattern may agree at another scale, each marker of it for as
// much as this is unlikely.
constexpr double kOtherSizes = 0.001;

}  // namespace

RadiusModel::RadiusModel(const PairGraph& graph, const NominalRadii& nominal)
    : known_(nominal), hasNominal_(!nominal.logarithms.empty()) {
    Spread spread;
    for (int c = 0; c < static_cast<int>(graph.candidates.size()); ++c)
        spread.add(graph.fit(c).logRadius, graph.fit(c).sigmaRadius);
    sigma_ = spread.sigma();
    low_ = spread.low();
    high_ = spread.high();
    setGrid();
    Parts<kParts> shares{};
    shares[0] = hasNominal_ ? kOtherSizes : 1;
    shares[kNominal] = 1 - shares[0];
    mixture_.setShares(shares);
    mix();
}

/// Kernels are as wide as the uncertainty of the pairs that are believed: with any other, whole assignments of other
/// depths would not be measured alike.
void RadiusModel::setGrid() {
    learnt_.reset(
        KernelGrid(low_, high_, {1.5 * sigma_, std::max(kKindKernel, 3 * sigma_), std::max(kBroadSizes, 9 * sigma_)}));
    nominal_.assign(learnt_.grid().cells(), 1 / (high_ - low_));
    if (hasNominal_) {
        const double width = std::hypot(known_.tolerance, sigma_);
        const double scale =
            1 / (std::sqrt(2 * std::numbers::pi) * width * static_cast<double>(known_.logarithms.size()));
        for (std::size_t cell = 0; cell < nominal_.size(); ++cell) {
            double sum = 0;
            for (const double at : known_.logarithms) {
                const double off = (learnt_.grid().place(cell) - at) / width;
                sum += std::exp(-0.5 * off * off);
            }
            nominal_[cell] = scale * sum;
        }
    }
}

void RadiusModel::learn(const PairGraph& graph) {
    if (learnt_.total() == 0) {  // nothing is learnt yet: all kernels may be right
        Parts<kParts> shares;
        shares.fill(0.25);
        shares[kNominal] = hasNominal_ ? 1 - kOtherSizes : 0;
        for (std::size_t k = 0; k < kParts; ++k)
            if (k != kNominal) shares[k] *= 1 - shares[kNominal];
        mixture_.setShares(shares);
    }
    sigma_ = typicalSigma(graph.believedSigmas([](const CircleFit& fit) { return fit.sigmaRadius; }), sigma_);
    setGrid();
    learnt_.learn(graph);
}

void RadiusModel::learnShares(const PairGraph& graph) {
    for (int c = 0; c < static_cast<int>(graph.candidates.size()); ++c) {
        if (graph.worth(c) < kLeastForShares) continue;
        mixture_.count(parts(graph, graph.fit(c).logRadius, 0, graph.line(0, c), graph.line(1, c)), graph.worth(c));
    }
    mixture_.learn(kNominal);  // what is known beforehand is not unlearnt
    mix();
}

void RadiusModel::mix() {
    mixed_.assign(learnt_.grid().cells(), 0.0);
    for (std::size_t cell = 0; cell < mixed_.size(); ++cell)
        for (std::size_t k = 0; k < KernelGrid::kWidths; ++k)
            mixed_[cell] += mixture_.share(kLearnt + k) * learnt_.grid().at(k, cell);
    mixedKernel_ =
        learnt_.grid().mixedKernel({mixture_.share(kLearnt), mixture_.share(kLearnt + 1), mixture_.share(kLearnt + 2)});
}

Parts<RadiusModel::kParts> RadiusModel::parts(const PairGraph& graph, double logRadius, std::size_t eye, int line,
                                              int other) const {
    Parts<kParts> parts;
    parts.fill(1 / (high_ - low_));
    parts[kNominal] = learnt_.grid().interpolate(nominal_, logRadius);
    learnt_.density(graph, logRadius, eye, line, other, &parts[kLearnt]);
    return parts;
}

double RadiusModel::learntShare() const {
    double sum = 0;
    for (std::size_t k = 0; k < KernelGrid::kWidths; ++k) sum += mixture_.share(kLearnt + k);
    return sum;
}

RadiusModel::AtMarker::AtMarker(const RadiusModel& model, const PairGraph& graph, std::size_t eye, int line)
    : model_(model) {
    double total = model.learnt_.total();
    graph.forOwn(eye, line, -1, [&](int c) {
        own_.push_back({graph.fit(c).logRadius, graph.worth(c)});
        total -= graph.worth(c);
    });
    const bool hasLearnt = total > LearntKernels::kLeastTotal;
    if (hasLearnt) perPair_ = 1 / total;
    broad_ = (model.mixture_.share(0) + (hasLearnt ? 0 : model.learntShare())) * model.chance();
}

double RadiusModel::AtMarker::operator()(double logRadius) const {
    if (!(logRadius > model_.low_ && logRadius < model_.high_)) return 0;
    const KernelGrid& grid = model_.learnt_.grid();
    double sum = broad_;
    if (model_.hasNominal_) sum += model_.mixture_.share(kNominal) * grid.interpolate(model_.nominal_, logRadius);
    if (perPair_ > 0) {
        double learnt = grid.interpolate(model_.mixed_, logRadius);
        for (const Own& own : own_)
            learnt -= own.worth * grid.interpolateKernel(model_.mixedKernel_, logRadius - own.logRadius);
        sum += std::max(learnt, 0.0) * perPair_;
    }
    return sum;
}

}  // namespace kestrune::matching
