// SPDX-License-Identifier: Apache-2.0
#include "matching/depth_model.h"

#include <algorithm>
#include <cmath>

#include "matching/kernels.h"
#include "matching/spread.h"

namespace kestrune::matching {
namespace {

// Depths that a rig may be meant for, in baselines.
constexpr double kNearest = 0.3, kFarthest = 100;
constexpr double kObjectKernel = 0.03, kBroadKernel = 0.2;
constexpr double kLeastTotal = 0.5;
// Neighbours' kernels: of their uncertainty, and as much wider for what is not quite a plane.
constexpr double kNarrow = 1.3, kWide = 6;
// Beside each other on a surface, depths differ by this share of the distance.
constexpr double kSlope = 0.4;
constexpr std::size_t kPlane = 1 + KernelGrid::kWidths, kTangent = kPlane + 2, kLevel = kTangent + 2;
// Of other pairs' depths, so many are taken for the narrow kernel, and for each wider one.
constexpr std::size_t kMostNarrow = 64, kMostWide = 12;

// Middles of four equal shares of that kernel, and of two.
constexpr std::array<double, 2> kQuarters = {0.2016, 0.8214};
constexpr double kHalf = 0.4416;

/// Mean of a function about a centre, smeared by the kernel.
template <typename Function>
double smeared(const Function& f, double centre, double width, bool isFine) {
    if (!isFine) return 0.5 * (f(centre - kHalf * width) + f(centre + kHalf * width));
    double sum = 0;
    for (const double place : kQuarters) sum += f(centre - place * width) + f(centre + place * width);
    return 0.25 * sum;
}

struct NeighbourWidths {
    double tangent, level, slope;
};

NeighbourWidths widthsOf(const Neighbour& neighbour, double sigma) {
    return {kNarrow * neighbour.tangentSigma, kNarrow * sigma, kNarrow * sigma + kSlope * neighbour.distance};
}

}  // namespace

DepthModel::DepthModel(const PairGraph& graph, double baseline) {
    Spread spread;
    const double nearest = std::log(kNearest * baseline), farthest = std::log(kFarthest * baseline);
    for (int c = 0; c < static_cast<int>(graph.candidates.size()); ++c) {
        const CircleFit& fit = graph.fit(c);
        if (fit.logDepth > nearest && fit.logDepth < farthest) spread.add(fit.logDepth, fit.sigmaDepth);
    }
    sigma_ = spread.sigma();
    low_ = spread.low();
    high_ = spread.high();
    Parts<kParts> shares{};
    shares[0] = 1;
    mixture_.setShares(shares);
}

/// Kernels are as wide as the uncertainty of the pairs that are believed: with any other, whole assignments of other
/// depths would not be measured alike.
void DepthModel::setSigma(const PairGraph& graph) {
    sigma_ = matching::typicalSigma(graph.believedSigmas([](const CircleFit& fit) { return fit.sigmaDepth; }), sigma_);
}

void DepthModel::learn(const PairGraph& graph) {
    if (total_ == 0) mixture_ = {};
    grid_ = KernelGrid(low_, high_,
                       {1.5 * sigma_, std::max(kObjectKernel, 3 * sigma_), std::max(kBroadKernel, 9 * sigma_)});
    total_ = 0;
    for (int c = 0; c < static_cast<int>(graph.candidates.size()); ++c) {
        if (graph.worth(c) < PairGraph::kLeastOwn) continue;
        grid_.add(graph.fit(c).logDepth, graph.worth(c));
        total_ += graph.worth(c);
    }
    grid_.smooth();
}

void DepthModel::learnShares(const PairGraph& graph, const Neighbourhood& neighbourhood) {
    for (int c = 0; c < static_cast<int>(graph.candidates.size()); ++c) {
        if (graph.worth(c) < kLeastForShares) continue;
        mixture_.count(parts(graph, neighbourhood, graph.fit(c).logDepth, 0, graph.line(0, c), graph.line(1, c)),
                       graph.worth(c));
    }
    mixture_.learn();
}

Parts<DepthModel::kParts> DepthModel::parts(const PairGraph& graph, const Neighbourhood& neighbourhood, double logDepth,
                                            std::size_t eye, int line, int other) const {
    Parts<kParts> parts;
    parts.fill(logDepth > low_ && logDepth < high_ ? chance() : 0);
    if (total_ == 0) return parts;
    double total = total_;
    std::array<double, KernelGrid::kWidths> sums;
    for (std::size_t k = 0; k < sums.size(); ++k) sums[k] = grid_.value(k, logDepth);
    graph.forOwn(eye, line, other, [&](int c) {
        total -= graph.worth(c);
        for (std::size_t k = 0; k < sums.size(); ++k)
            sums[k] -= graph.worth(c) * grid_.kernel(k, logDepth - graph.fit(c).logDepth);
    });
    if (total > kLeastTotal)
        for (std::size_t k = 0; k < sums.size(); ++k) parts[1 + k] = std::max(sums[k], 0.0) / total;

    const Prediction& prediction = neighbourhood.of(eye, line);
    int without = -1, count = 0;
    std::array<double, 4> near{};
    for (int k = 0; k < prediction.count; ++k) {
        const Neighbour& neighbour = prediction.neighbours[static_cast<std::size_t>(k)];
        if (graph.line(1 - eye, neighbour.candidate) == other) {
            without = k;
            continue;
        }
        ++count;
        const NeighbourWidths widths = widthsOf(neighbour, sigma_);
        near[0] += longTailed(logDepth - neighbour.tangent, widths.tangent);
        near[1] += longTailed(logDepth - neighbour.tangent, kWide * widths.tangent);
        near[2] += longTailed(logDepth - neighbour.logDepth, widths.level);
        near[3] += longTailed(logDepth - neighbour.logDepth, widths.slope);
    }
    Prediction others;
    if (without >= 0) {
        others = prediction;
        others.fitPlane(without, sigma_);
    }
    const Prediction& plane = without >= 0 ? others : prediction;
    if (plane.hasPlane) {
        parts[kPlane] = longTailed(logDepth - plane.plane, kNarrow * plane.planeSigma);
        parts[kPlane + 1] = longTailed(logDepth - plane.plane, kWide * plane.planeSigma);
    }
    if (count > 0)
        for (std::size_t k = 0; k < near.size(); ++k) parts[kTangent + k] = near[k] / count;
    return parts;
}

double DepthModel::singleDensity(const PairGraph& graph, const Neighbourhood& neighbourhood, const RadiusModel& radii,
                                 std::size_t eye, int line) const {
    const Sightline& at = graph.sight(eye, line);
    const double toRadius = at.logRho - std::log(at.forward);
    const auto radius = [&](double logDepth) { return radii.density(graph, toRadius + logDepth, eye, line); };
    const double broad = 1 / (high_ - low_);
    Parts<kParts> parts;
    parts.fill(broad);
    if (total_ == 0) return mixture_(parts);

    const std::vector<Anchor>& anchors = neighbourhood.anchors(eye);
    double sum = 0;
    int count = 0;
    const std::size_t stride = anchors.size() / kMostNarrow + 1;
    for (std::size_t k = 0; k < anchors.size(); k += stride) {
        if (anchors[k].line == line) continue;
        sum += radius(anchors[k].logDepth);
        ++count;
    }
    if (count > 0) {
        parts[1] = sum / count;  // narrower than the radii's kernels
        const std::size_t step = anchors.size() / kMostWide + 1;
        double middle = 0, wide = 0;
        int some = 0;
        for (std::size_t k = 0; k < anchors.size(); k += step) {
            if (anchors[k].line == line) continue;
            middle += smeared(radius, anchors[k].logDepth, grid_.width(1), false);
            wide += smeared(radius, anchors[k].logDepth, grid_.width(2), true);
            ++some;
        }
        if (some > 0) {
            parts[2] = middle / some;
            parts[3] = wide / some;
        }
    }
    const Prediction& prediction = neighbourhood.of(eye, line);
    if (prediction.hasPlane) {
        parts[kPlane] = smeared(radius, prediction.plane, kNarrow * prediction.planeSigma, true);
        parts[kPlane + 1] = smeared(radius, prediction.plane, kWide * prediction.planeSigma, true);
    }
    if (prediction.count > 0) {
        std::array<double, 4> near{};
        for (int k = 0; k < prediction.count; ++k) {
            const Neighbour& neighbour = prediction.neighbours[static_cast<std::size_t>(k)];
            const NeighbourWidths widths = widthsOf(neighbour, sigma_);
            near[0] += smeared(radius, neighbour.tangent, widths.tangent, false);
            near[1] += smeared(radius, neighbour.tangent, kWide * widths.tangent, true);
            near[2] += radius(neighbour.logDepth);
            near[3] += smeared(radius, neighbour.logDepth, widths.slope, true);
        }
        for (std::size_t k = 0; k < near.size(); ++k) parts[kTangent + k] = near[k] / prediction.count;
    }
    return mixture_(parts);
}

}  // namespace kestrune::matching
