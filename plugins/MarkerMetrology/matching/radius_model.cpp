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
// Before anything is learnt: markers of another size than the nominal ones.
constexpr double kOtherSizes = 0.05;
constexpr std::size_t kNominal = 1;  // of the parts
// Beyond this many widths a kernel of the marker itself is not worth being taken out.
constexpr double kReach = 12;

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
    shares[1] = 1 - shares[0];
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
        shares[1] = hasNominal_ ? 1 - kOtherSizes : 0;
        for (std::size_t k = 0; k < kParts; ++k)
            if (k != 1) shares[k] *= 1 - shares[1];
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
            mixed_[cell] += mixture_.share(2 + k) * learnt_.grid().at(k, cell);
}

Parts<RadiusModel::kParts> RadiusModel::parts(const PairGraph& graph, double logRadius, std::size_t eye, int line,
                                              int other) const {
    Parts<kParts> parts;
    parts.fill(1 / (high_ - low_));
    parts[1] = learnt_.grid().interpolate(nominal_, logRadius);
    learnt_.density(graph, logRadius, eye, line, other, &parts[2]);
    return parts;
}

double RadiusModel::density(const PairGraph& graph, double logRadius, std::size_t eye, int line) const {
    if (!(logRadius > low_ && logRadius < high_)) return 0;
    double total = learnt_.total(), learnt = total > 0 ? learnt_.grid().interpolate(mixed_, logRadius) : 0,
           learntShare = 0;
    for (std::size_t k = 0; k < KernelGrid::kWidths; ++k) learntShare += mixture_.share(2 + k);
    graph.forOwn(eye, line, -1, [&](int c) {
        total -= graph.worth(c);
        const double off = logRadius - graph.fit(c).logRadius;
        for (std::size_t k = 0; k < KernelGrid::kWidths; ++k)
            if (std::abs(off) < kReach * learnt_.grid().width(k))
                learnt -= mixture_.share(2 + k) * graph.worth(c) * learnt_.grid().kernel(k, off);
    });
    const double broad = (mixture_.share(0) + (total > LearntKernels::kLeastTotal ? 0 : learntShare)) / (high_ - low_);
    return broad + mixture_.share(1) * learnt_.grid().interpolate(nominal_, logRadius) +
           (total > LearntKernels::kLeastTotal ? std::max(learnt, 0.0) / total : 0);
}

}  // namespace kestrune::matching
