// SPDX-License-Identifier: Apache-2.0
#include "matching/scene_model.h"

#include <cmath>

namespace kestrune::matching {
namespace {

// Single markers that are none, or none of this scene. How many there are the exposure itself can hardly tell.
constexpr double kFalseShare = 0.5;
constexpr double kSizeRange = 3;  // their sizes, as a logarithm
constexpr double kLeastDensity = 1e-30;
// What a nat of each cue is worth where pairs turn out right or wrong, over scenes of all kinds (logistic regression of
// right and wrong on the cues): wrong pairs are off in depth and radius more often than kernels with long tails tell,
// and their normals agree more often, for neighbours share them.
// That is against any depth that a rig may be meant for and any size, not against those of the candidates: what is
// known beforehand leaves fewer of these, and must not make the rest less sure.
constexpr double kDepthWorth = 1.5, kRadiusWorth = 1.2, kNormalWorth = 0.8;

const double kAnyDepth = -std::log(DepthModel::kWidestRange), kAnySize = -std::log(kSizeRange);

}  // namespace

SceneModel::SceneModel(const Views& views, const std::vector<Candidate>& candidates, const NominalRadii& nominal,
                       double baseline)
    : graph_(views, candidates), radii_(graph_, nominal), depths_(graph_, baseline) {
    neighbourhood_.learn(graph_, depths_.typicalSigma());
}

void SceneModel::learn(const std::vector<double>& probability, const std::vector<int>& ends) {
    graph_.setProbability(probability, ends);
    depths_.setSigma(graph_);
    neighbourhood_.learn(graph_, depths_.typicalSigma());
    radii_.learn(graph_);
    depths_.learn(graph_);
    normals_.learn(graph_, neighbourhood_);
    radii_.learnShares(graph_);
    depths_.learnShares(graph_, neighbourhood_);
    normals_.learnShares(graph_, neighbourhood_);
}

PairDensity SceneModel::pairDensity(int candidate, const CircleFit& fit) const {
    const int left = graph_.line(0, candidate), right = graph_.line(1, candidate);
    const auto depth = depths_.parts(graph_, neighbourhood_, fit.logDepth, 0, left, right);
    const auto radius = radii_.parts(graph_, fit.logRadius, 0, left, right);
    const auto normal = normals_.parts(graph_, neighbourhood_, fit.normal, fit.sigmaNormal, fit.facing, 0, left, right);
    PairDensity density{std::log(depths_.density(depth)), std::log(radii_.density(radius)),
                        std::log(normals_.density(normal)), std::log(radii_.knownDensity(radius) + kLeastDensity)};
    const PairDensity chance = chanceDensity(fit);
    density.depth = kAnyDepth + kDepthWorth * (density.depth - kAnyDepth);
    density.radius = kAnySize + kRadiusWorth * (density.radius - kAnySize);
    density.normal = chance.normal + kNormalWorth * (density.normal - chance.normal);
    return density;
}

PairDensity SceneModel::chanceDensity(const CircleFit& fit) const {
    return {std::log(depths_.chance()), std::log(radii_.chance()), std::log(NormalModel::chance(fit.facing)),
            std::log(radii_.chance())};
}

double SceneModel::singleDensity(std::size_t eye, int line) const {
    const double ofScene = depths_.singleDensity(graph_, neighbourhood_, radii_, eye, line) *
                           normals_.singleDensity(graph_, neighbourhood_, eye, line);
    const double ofFalse = NormalModel::broadDensity(graph_.sight(eye, line)) / kSizeRange;
    return std::log(kFalseShare * ofFalse + (1 - kFalseShare) * ofScene + kLeastDensity);
}

}  // namespace kestrune::matching
