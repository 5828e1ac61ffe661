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

/// Mean of the kernels of each width at a normal, without those of its own two lines; nothing where there are no
/// others.
template <std::size_t N>
void setDensities(const NormalKernels<N>& kernels, const Vector3& normal, double variance, std::array<int, 2> own,
                  double* parts) {
    constexpr std::size_t kWidths = NormalModel::kWidths;
    std::array<std::array<double, N>, kWidths> densities;
    for (std::size_t i = 0; i < kernels.count; ++i) {
        const double x = normal.x() - kernels.x[i], y = normal.y() - kernels.y[i], z = normal.z() - kernels.z[i];
        const double distance2 = x * x + y * y + z * z, both = variance + kernels.variance[i];
        for (std::size_t k = 0; k < kWidths; ++k)
            densities[k][i] = longTailedInPlane(distance2, kKernels[k] * kKernels[k] + both);
    }
    std::array<double, kWidths> sums{};
    int count = 0;
    for (std::size_t i = 0; i < kernels.count; ++i) {
        if (kernels.line[0][i] == own[0] || kernels.line[1][i] == own[1]) continue;
        ++count;
        for (std::size_t k = 0; k < kWidths; ++k) sums[k] += densities[k][i];
    }
    if (count > 0)
        for (std::size_t k = 0; k < kWidths; ++k) parts[k] = sums[k] / count;
}

}  // namespace

template <std::size_t N>
void NormalKernels<N>::add(const PairGraph& graph, int candidate) {
    const CircleFit& fit = graph.fit(candidate);
    x[count] = fit.normal.x();
    y[count] = fit.normal.y();
    z[count] = fit.normal.z();
    variance[count] = kHalfOfGaussian * fit.sigmaNormal * fit.sigmaNormal;
    for (std::size_t eye = 0; eye < 2; ++eye) line[eye][count] = graph.line(eye, candidate);
    ++count;
}

NormalModel::NormalModel() {
    Parts<kParts> shares{};
    shares[0] = 1;
    mixture_.setShares(shares);
}

void NormalModel::learn(const PairGraph& graph, const Neighbourhood& neighbourhood) {
    if (!hasLearnt_) mixture_ = {};
    hasLearnt_ = true;
    kernels_.count = 0;
    const std::vector<Anchor>& anchors = neighbourhood.anchors(0);
    const std::size_t step = anchors.size() / kMostKernels + 1;
    for (std::size_t k = 0; k < anchors.size(); k += step) kernels_.add(graph, anchors[k].candidate);
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
    const double variance = kHalfOfGaussian * sigma * sigma;
    const std::array<int, 2> own = eye == 0 ? std::array{line, other} : std::array{other, line};
    setDensities(kernels_, normal, variance, own, &parts[1]);
    const Prediction& prediction = neighbourhood.of(eye, line);
    NormalKernels<Prediction::kMost> near;
    for (int k = 0; k < prediction.count; ++k)
        near.add(graph, prediction.neighbours[static_cast<std::size_t>(k)].candidate);
    setDensities(near, normal, variance, own, &parts[1 + kWidths]);
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
