// SPDX-License-Identifier: Apache-2.0
#include "matching/depth_model.h"

#include <algorithm>
#include <cmath>

#include "matching/kernels.h"
#include "matching/spread.h"

namespace kestrune::matching {
namespace {

constexpr double kObjectKernel = 0.03, kBroadKernel = 0.2;
// Neighbours' kernels: of their uncertainty, and as much wider for what is not quite a plane.
constexpr double kNarrow = 1.3, kWide = 6;
// Beside each other on a surface, depths differ by this share of the distance.
constexpr double kSlope = 0.4;
constexpr std::size_t kPlane = 1 + KernelGrid::kWidths, kTangent = kPlane + 2;
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

/// Mean of a function over other pairs' depths, so many of them at most; below 0 for none.
template <typename Function>
double meanOverAnchors(const std::vector<Anchor>& anchors, int line, std::size_t most, const Function& f) {
    double sum = 0;
    int count = 0;
    const std::size_t stride = anchors.size() / most + 1;
    for (std::size_t k = 0; k < anchors.size(); k += stride) {
        if (anchors[k].line == line) continue;
        sum += f(anchors[k].logDepth);
        ++count;
    }
    return count > 0 ? sum / count : -1;
}

/// A function of the depth, smeared as the neighbours predict it.
template <typename Function>
void setSmearedNear(const Prediction& prediction, double sigma, const Function& f, Parts<DepthModel::kParts>& parts) {
    if (prediction.hasPlane) {
        parts[kPlane] = smeared(f, prediction.plane, kNarrow * prediction.planeSigma, true);
        parts[kPlane + 1] = smeared(f, prediction.plane, kWide * prediction.planeSigma, true);
    }
    if (prediction.count == 0) return;
    std::array<double, 4> near{};
    for (int k = 0; k < prediction.count; ++k) {
        const Neighbour& neighbour = prediction.neighbours[static_cast<std::size_t>(k)];
        const NeighbourWidths widths = widthsOf(neighbour, sigma);
        near[0] += smeared(f, neighbour.tangent, widths.tangent, false);
        near[1] += smeared(f, neighbour.tangent, kWide * widths.tangent, true);
        near[2] += f(neighbour.logDepth);
        near[3] += smeared(f, neighbour.logDepth, widths.slope, true);
    }
    for (std::size_t k = 0; k < near.size(); ++k) parts[kTangent + k] = near[k] / prediction.count;
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
    if (learnt_.total() == 0) mixture_ = {};
    learnt_.reset(KernelGrid(low_, high_,
                             {1.5 * sigma_, std::max(kObjectKernel, 3 * sigma_), std::max(kBroadKernel, 9 * sigma_)}));
    learnt_.learn(graph);
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
    if (learnt_.total() == 0) return parts;
    learnt_.density(graph, logDepth, eye, line, other, &parts[1]);

    setNear(graph, neighbourhood.of(eye, line), logDepth, 1 - eye, other, parts);
    return parts;
}

/// Of the neighbours that do not claim the pair's other marker.
void DepthModel::setNear(const PairGraph& graph, const Prediction& prediction, double logDepth, std::size_t otherEye,
                         int other, Parts<kParts>& parts) const {
    int without = -1, count = 0;
    std::array<double, 4> near{};
    for (int k = 0; k < prediction.count; ++k) {
        const Neighbour& neighbour = prediction.neighbours[static_cast<std::size_t>(k)];
        if (graph.line(otherEye, neighbour.candidate) == other) {
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
}

double DepthModel::singleDensity(const PairGraph& graph, const Neighbourhood& neighbourhood, const RadiusModel& radii,
                                 std::size_t eye, int line) const {
    const Sightline& at = graph.sight(eye, line);
    Parts<kParts> parts;
    parts.fill(chance());
    if (learnt_.total() == 0) return mixture_(parts);
    const double toRadius = at.logRho - std::log(at.forward);
    const RadiusModel::AtMarker atRadius(radii, graph, eye, line);
    const auto radius = [&](double logDepth) { return atRadius(toRadius + logDepth); };

    const auto anchors = [&](std::size_t most, double width, bool isFine) {
        return meanOverAnchors(neighbourhood.anchors(eye), line, most, [&](double logDepth) {
            return width > 0 ? smeared(radius, logDepth, width, isFine) : radius(logDepth);
        });
    };
    const std::array<double, KernelGrid::kWidths> learnt = {
        anchors(kMostNarrow, 0, false),  // narrower than the radii's kernels
        anchors(kMostWide, learnt_.grid().width(1), false), anchors(kMostWide, learnt_.grid().width(2), true)};
    for (std::size_t k = 0; k < learnt.size(); ++k)
        if (learnt[k] >= 0) parts[1 + k] = learnt[k];
    setSmearedNear(neighbourhood.of(eye, line), sigma_, radius, parts);
    return mixture_(parts);
}

}  // namespace kestrune::matching
