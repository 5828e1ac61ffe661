// SPDX-License-Identifier: Apache-2.0
#include "matching/normal_model.h"

#include <algorithm>
#include <cmath>
#include <numbers>

#include "matching/kernels.h"
#include "matching/spread.h"

namespace kestrune::matching {
namespace {

using Vector3 = Eigen::Vector3d;
using std::numbers::pi;

// Widths of kernels, radians, beside the uncertainty.
constexpr std::array<double, NormalModel::kWidths> kKernels = {0.01, 0.05, 0.2};
constexpr std::size_t kMostKernels = 48;  // of all pairs
// The normal of one ellipse is not less certain than this, radians.
constexpr double kMostSigma = 0.6;
// Half of a Gaussian's draws in two dimensions lie within this times its variance, as half of a kernel's within its
// width squared.
constexpr double kHalfOfGaussian = 1.386;

/// |w| smeared by its uncertainty, so that the inverse is right on average where a disc faces the eye.
double smearedShape(const Sightline& line) {
    return std::sqrt(std::norm(line.w) + 2 / pi * line.sigmaW * line.sigmaW);
}

/// Of w = -q^2 and of the solid angle by q: what turns a density of normals into one of shapes, for each normal.
double shapeScale(const Sightline& line) {
    const double turn = 2 / (1 + std::norm(line.q));
    return turn * turn / (4 * smearedShape(line));
}

double facingOf(const Sightline& line) {
    return (1 - std::norm(line.q)) / (1 + std::norm(line.q));
}

}  // namespace

NormalModel::NormalModel() {
    Parts<kParts> shares{};
    shares[0] = 1;
    mixture_.setShares(shares);
}

void NormalModel::learn(const Neighbourhood& neighbourhood) {
    if (!hasLearnt_) mixture_ = {};
    hasLearnt_ = true;
    kernels_.clear();
    const std::vector<Anchor>& anchors = neighbourhood.anchors(0);
    const std::size_t step = anchors.size() / kMostKernels + 1;
    for (std::size_t k = 0; k < anchors.size(); k += step) kernels_.push_back(anchors[k].candidate);
}

void NormalModel::learnShares(const PairGraph& graph, const Neighbourhood& neighbourhood) {
    for (int c = 0; c < static_cast<int>(graph.candidates.size()); ++c) {
        if (graph.worth(c) < kLeastForShares) continue;
        const CircleFit& fit = graph.fit(c);
        mixture_.count(
            parts(graph, neighbourhood, fit.normal, fit.sigmaNormal, fit.facing, 0, graph.line(0, c), graph.line(1, c)),
            graph.worth(c));
    }
    mixture_.learn();
}

Parts<NormalModel::kParts> NormalModel::parts(const PairGraph& graph, const Neighbourhood& neighbourhood,
                                              const Vector3& normal, double sigma, double facing, std::size_t eye,
                                              int line, int other) const {
    Parts<kParts> parts;
    parts.fill(facing / pi);
    if (!hasLearnt_) return parts;
    std::array<double, kWidths> sums{};
    int count = 0;
    const auto add = [&](int candidate) {
        if (graph.line(eye, candidate) == line || graph.line(1 - eye, candidate) == other) return;
        const CircleFit& fit = graph.fit(candidate);
        const double variance = kHalfOfGaussian * (sigma * sigma + fit.sigmaNormal * fit.sigmaNormal);
        const double distance2 = (normal - fit.normal).squaredNorm();
        ++count;
        for (std::size_t k = 0; k < kWidths; ++k)
            sums[k] += longTailedInPlane(distance2, kKernels[k] * kKernels[k] + variance);
    };
    const auto set = [&](std::size_t first) {
        if (count > 0)
            for (std::size_t k = 0; k < kWidths; ++k) parts[first + k] = sums[k] / count;
        sums.fill(0);
        count = 0;
    };
    for (const int candidate : kernels_) add(candidate);
    set(1);
    const Prediction& prediction = neighbourhood.of(eye, line);
    for (int k = 0; k < prediction.count; ++k) add(prediction.neighbours[static_cast<std::size_t>(k)].candidate);
    set(1 + kWidths);
    return parts;
}

double NormalModel::singleDensity(const PairGraph& graph, const Neighbourhood& neighbourhood, std::size_t eye,
                                  int line) const {
    const Sightline& at = graph.sight(eye, line);
    const double turn = 2 / (1 + std::norm(at.q));
    const double sigma = std::min(kMostSigma, turn * at.sigmaW / (2 * std::sqrt(smearedShape(at))));
    double sum = 0;
    for (const Complex& q : {at.q, -at.q})
        sum += mixture_(parts(graph, neighbourhood, normalOf(at, q), sigma, facingOf(at), eye, line, -1));
    return sum * shapeScale(at);
}

double NormalModel::broadDensity(const Sightline& line) {
    return 2 * facingOf(line) / pi * shapeScale(line);
}

}  // namespace kestrune::matching
