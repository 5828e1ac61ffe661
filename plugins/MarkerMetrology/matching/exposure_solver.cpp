// SPDX-License-Identifier: Apache-2.0
#include "matching/exposure_solver.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>
#include <numbers>

#include "matching/places.h"
#include "matching/spread.h"
#include "parallel/parallel_loop.h"

namespace kestrune::matching {
namespace {

constexpr double kWindow =
    10;  // told sigmas of the distance from the epipolar plane: five of sigmas told too small by two
// One ellipse in two hundred is off by five times its sigma.
constexpr double kOutliers = 0.005, kOutlierScale = 5;
constexpr double kFirstShare = 0.7;  // of the smaller list
// Single markers that each eye has besides those that are counted: half a one, and the one at hand, which must not tell
// by being in a pair that no marker is single.
constexpr double kPseudoSingle = 1.5;
constexpr std::size_t kMostOfOneLine = 24;
constexpr std::int64_t kMostOfOneWeight = 100'000;  // of a marker or a candidate, ns: 4 us, with many candidates more
// What is learnt adds up to some five nats for each of radius, depth and normal.
constexpr double kLeastFirstWeight = -22;
constexpr double kLeastLogWeight = -18;
constexpr double kBelievedStart = 0.9;
constexpr int kLeastRounds = 2;
constexpr double kFewestPairs = 0.1;
constexpr double kShapeGate = 1.5;    // told sigmas of shapes may be too small by it at the gate
constexpr double kDepthSigmas = 5;    // that a depth may be beyond its range
constexpr double kNominalSigmas = 3;  // that a radius may be off a nominal one
constexpr double kLikelyShape = 16;   // chi-square of a pair, to begin with
constexpr double kLeastScale = 0.2, kMostScale = 20;
constexpr double kNoProbability = 1e-9;  // below what is ever told of a pair
constexpr double kSettledChange = 1e-4;  // change of a probability between rounds

/// log of a Gaussian's density with outliers, without its normalisation.
double robust(double chiSquare, int freedom) {
    const double good = std::log(1 - kOutliers) - 0.5 * chiSquare;
    const double bad =
        std::log(kOutliers) - freedom * std::log(kOutlierScale) - 0.5 * chiSquare / (kOutlierScale * kOutlierScale);
    return std::max(good, bad) + std::log1p(std::exp(-std::abs(good - bad)));
}

}  // namespace

ExposureSolver::ExposureSolver(const Views& views, const EpipolarFrame& frame, const Beforehand& known)
    : views_(views), baseline_(frame.baseline), known_(known) {
    candidates_ = candidatesOf(views, baseline_, {1, kShapeGate}, kWindow);
    keepDepths(frame);
    logPlaces_ = placeDensities(views.lines[1]);
    firstScale_ = firstScale();
    dropHopeless();
}

/// Those within the range that is known, to some sigmas.
void ExposureSolver::keepDepths(const EpipolarFrame& frame) {
    if (!(known_.depth[1] > 0)) return;
    const auto isBeyond = [&](const Candidate& candidate) {
        const CircleFit& fit = candidate.agreement.fits[0];
        const Eigen::Vector3d& axis = views_.lines[0][static_cast<std::size_t>(candidate.left)].axis;
        const double z = std::exp(fit.logDepth) / axis.z() * frame.fromLeft.col(2).dot(axis);
        const double slack = kDepthSigmas * fit.sigmaDepth * z;
        return !(z >= known_.depth[0] - slack && z <= known_.depth[1] + slack);
    };
    std::erase_if(candidates_, isBeyond);
}

/// Of the candidate of each left marker that is nearest to its epipolar plane, as far as that is no chance: where the
/// calibration is off by more than the markers scatter, even the first weights must know.
double ExposureSolver::firstScale() const {
    std::vector<double> nearest(views_.lines[0].size(), std::numeric_limits<double>::infinity()), found;
    for (const Candidate& candidate : candidates_) {
        const CircleFit& fit = candidate.agreement.fits[0];
        double& least = nearest[static_cast<std::size_t>(candidate.left)];
        if (fit.chiSquare < kLikelyShape) least = std::min(least, std::abs(fit.epipolar) / fit.sigmaEpipolar);
    }
    for (const double z : nearest)
        if (std::isfinite(z)) found.push_back(z);
    return known_.estimateSigmas ? std::clamp(medianOf(found, 0) / kMedianOfNormal, 1.0, kMostScale) : 1;
}

double ExposureSolver::firstPairs() const {
    return kFirstShare * static_cast<double>(std::min(views_.lines[0].size(), views_.lines[1].size()));
}

/// Those that nothing learnt later could make probable.
void ExposureSolver::dropHopeless() {
    Solution solution;
    solution.pairs = firstPairs();
    solution.scales.centre = firstScale_;
    weigh(SceneModel(views_, candidates_, known_.radii, baseline_), GreyModel(views_), solution);
    // Crowds of alike markers keep their best ones: that bounds time.
    std::vector<std::vector<std::size_t>> ofLeft(views_.lines[0].size());
    for (std::size_t c = 0; c < candidates_.size(); ++c)
        if (solution.logWeights[c] >= kLeastFirstWeight)
            ofLeft[static_cast<std::size_t>(candidates_[c].left)].push_back(c);
    std::vector<Candidate> kept;
    for (std::vector<std::size_t>& list : ofLeft) {
        if (list.size() > kMostOfOneLine) {
            std::stable_sort(list.begin(), list.end(), [&](std::size_t x, std::size_t y) {
                return solution.logWeights[x] > solution.logWeights[y];
            });
            list.resize(kMostOfOneLine);
            std::sort(list.begin(), list.end());
        }
        for (const std::size_t c : list) {
            kept.push_back(candidates_[c]);
            firstWeights_.push_back(solution.logWeights[c]);
        }
    }
    candidates_ = std::move(kept);
}

Solution ExposureSolver::solve(const std::vector<int>& start, int rounds) const {
    SceneModel model(views_, candidates_, known_.radii, baseline_);
    GreyModel grey(views_);
    Solution solution;
    solution.pairs = firstPairs();
    solution.scales.centre = firstScale_;
    std::vector<double> before(candidates_.size(), 0.0);
    if (!start.empty()) {
        for (const int c : start) before[static_cast<std::size_t>(c)] = kBelievedStart;
        solution.pairs = kBelievedStart * static_cast<double>(start.size());
        model.learn(before);
    }
    for (int round = 0; round < rounds; ++round) {
        weigh(model, grey, solution);
        assignPairs(Effort::little, solution);
        double change = 0;
        for (std::size_t c = 0; c < before.size(); ++c)
            change = std::max(change, std::abs(before[c] - solution.assignment.probability[c]));
        if (round + 1 == rounds || (change < kSettledChange && round >= kLeastRounds)) break;
        if (round > 0) doubtLonelySurfaces(solution, Effort::little);  // nor may they teach
        before = solution.assignment.probability;
        if (known_.estimateSigmas) learnScales(solution);
        model.learn(before, solution.ends());
        learnGrey(solution, grey);
    }
    const std::vector<char>& isExact = solution.assignment.isExact;
    if (std::find(isExact.begin(), isExact.end(), 0) != isExact.end()) assignPairs(Effort::all, solution);
    return solution;
}

/// Over all candidates; those without weight are left out.
Assignment ExposureSolver::assignmentBy(const std::vector<double>& logWeights, Effort effort) const {
    std::vector<Edge> edges;
    std::vector<std::size_t> of;
    for (std::size_t c = 0; c < candidates_.size(); ++c) {
        if (!(logWeights[c] >= kLeastLogWeight)) continue;
        edges.push_back({candidates_[c].left, candidates_[c].right, logWeights[c]});
        of.push_back(c);
    }
    const Assignment found =
        assign(edges, static_cast<int>(views_.lines[0].size()), static_cast<int>(views_.lines[1].size()), effort);
    Assignment all;
    all.logSum = found.logSum;
    all.probability.assign(candidates_.size(), 0.0);
    all.chosen.assign(candidates_.size(), 0);
    all.isExact.assign(candidates_.size(), 1);
    for (std::size_t e = 0; e < of.size(); ++e) {
        all.probability[of[e]] = found.probability[e];
        all.chosen[of[e]] = found.chosen[e];
        all.isExact[of[e]] = found.isExact[e];
    }
    return all;
}

void ExposureSolver::assignPairs(Effort effort, Solution& solution) const {
    solution.assignment = assignmentBy(solution.logWeights, effort);
    solution.pairs = 0;
    solution.partner.assign(views_.lines[0].size(), -1);
    for (std::size_t c = 0; c < candidates_.size(); ++c) {
        solution.pairs += solution.assignment.probability[c];
        if (solution.assignment.chosen[c])
            solution.partner[static_cast<std::size_t>(candidates_[c].left)] = static_cast<int>(c);
    }
}

const CircleFit& ExposureSolver::fitOf(std::size_t candidate, const Solution& solution) const {
    return candidates_[candidate].agreement.fits[static_cast<std::size_t>(solution.evidence[candidate].fit)];
}

SeenPair ExposureSolver::seenPair(std::size_t candidate, const Solution& solution) const {
    const CircleFit& fit = fitOf(candidate, solution);
    const Candidate& own = candidates_[candidate];
    const Eigen::Vector3d& axis = views_.lines[0][static_cast<std::size_t>(own.left)].axis;
    const double reach = kNominalSigmas * std::hypot(known_.radii.tolerance, fit.sigmaRadius);
    const bool isNominal = std::any_of(known_.radii.logarithms.begin(), known_.radii.logarithms.end(),
                                       [&](double nominal) { return std::abs(fit.logRadius - nominal) < reach; });
    return {own.left,      own.right,       axis.x() / axis.z(), axis.y() / axis.z(),
            fit.logRadius, fit.sigmaRadius, fit.logDepth,        fit.sigmaDepth,
            isNominal};
}

/// Pairs that nothing but their own surface bears out must do without what depths and radii teach.
void ExposureSolver::doubtLonelySurfaces(Solution& solution, Effort effort) const {
    std::vector<double> reduced = solution.logWeights;
    std::vector<SeenPair> believed;
    for (std::size_t c = 0; c < candidates_.size(); ++c)
        if (solution.assignment.probability[c] > 0.5) believed.push_back(seenPair(c, solution));
    const Surfaces surfaces(std::move(believed));
    std::vector<char> isDoubted(candidates_.size(), 0);
    double doubtful = 0;
    for (std::size_t c = 0; c < candidates_.size(); ++c) {
        const double probability = solution.assignment.probability[c];
        isDoubted[c] = probability > kNoProbability && !surfaces.bearOut(seenPair(c, solution));
        if (isDoubted[c]) doubtful += probability;
    }
    if (doubtful == 0) return;
    // Nor may they take from each other that hardly a marker is single.
    const double less = logOdds(solution.pairs) - logOdds(solution.pairs - doubtful);
    for (std::size_t c = 0; c < candidates_.size(); ++c) {
        if (!isDoubted[c]) continue;
        const Evidence& evidence = solution.evidence[c];
        reduced[c] -= less + std::max(0.0, evidence.density.depth - evidence.chance.depth) +
                      std::max(0.0, evidence.density.radius - evidence.density.knownRadius);
    }
    const Assignment doubted = assignmentBy(reduced, effort);
    for (std::size_t c = 0; c < candidates_.size(); ++c)
        solution.assignment.probability[c] = std::min(solution.assignment.probability[c], doubted.probability[c]);
}

/// Markers that an eye alone sees, if there are so many pairs.
double ExposureSolver::singles(std::size_t eye, double pairs) const {
    return std::max(0.0, static_cast<double>(views_.lines[eye].size()) - pairs) + kPseudoSingle;
}

/// Of a pair against two single markers, by their numbers.
double ExposureSolver::logOdds(double pairs) const {
    return std::log(std::max(pairs, kFewestPairs) / (singles(0, pairs) * singles(1, pairs)));
}

void ExposureSolver::weigh(const SceneModel& model, const GreyModel& grey, Solution& solution) const {
    std::array<std::vector<double>, 2> single;
    for (std::size_t eye = 0; eye < 2; ++eye) {
        single[eye].resize(views_.lines[eye].size());
        forEachInParallel(static_cast<int>(single[eye].size()), kMostOfOneWeight,
                          [&](int i) { single[eye][static_cast<std::size_t>(i)] = model.singleDensity(eye, i); });
    }
    const double pairs = std::max(solution.pairs, kFewestPairs), lefts = singles(0, solution.pairs),
                 rights = singles(1, solution.pairs), odds = logOdds(solution.pairs);
    solution.logSingle = -pairs - lefts - rights;
    for (const double d : single[0]) solution.logSingle += d + std::log(lefts);
    for (const double d : single[1]) solution.logSingle += d + std::log(rights);

    solution.logWeights.assign(candidates_.size(), 0.0);
    solution.evidence.assign(candidates_.size(), {});
    forEachInParallel(static_cast<int>(candidates_.size()), kMostOfOneWeight, [&](int number) {
        const auto c = static_cast<std::size_t>(number);
        const Candidate& candidate = candidates_[c];
        const auto right = static_cast<std::size_t>(candidate.right);
        const double ofGrey = grey.evidence(candidate.left, candidate.right);
        std::array<Evidence, 2> ends;
        for (int k = 0; k < candidate.agreement.count; ++k) {
            const auto i = static_cast<std::size_t>(k);
            const CircleFit& fit = candidate.agreement.fits[i];
            ends[i].fit = k;
            ends[i].geometry = geometryOf(fit, solution.scales);
            ends[i].density = model.pairDensity(number, fit);
            ends[i].chance = model.chanceDensity(fit);
            ends[i].grey = ofGrey;
            ends[i].object = object_.empty() ? 0 : object_[c];
            ends[i].odds =
                odds - logPlaces_[right] - single[0][static_cast<std::size_t>(candidate.left)] - single[1][right];
        }
        const bool hasTwo = candidate.agreement.count > 1;
        const std::size_t more = hasTwo && ends[1].ofPair() > ends[0].ofPair() ? 1 : 0;
        solution.evidence[c] = ends[more];
        solution.logWeights[c] = ends[more].odds + ends[more].ofPair();
        if (hasTwo) solution.logWeights[c] += std::log1p(std::exp(ends[1 - more].ofPair() - ends[more].ofPair()));
    });
}

double ExposureSolver::geometryOf(const CircleFit& fit, const Scales& scales) const {
    const double sigma = scales.centre * fit.sigmaEpipolar, z = fit.epipolar / sigma;
    return robust(fit.chiSquare / (scales.shape * scales.shape), 3) - 3 * std::log(scales.shape) + fit.logVolume +
           robust(z * z, 1) - std::log(std::sqrt(2 * std::numbers::pi) * sigma) + std::log(fit.depthByAlpha);
}

void ExposureSolver::learnGrey(const Solution& solution, GreyModel& grey) const {
    std::vector<std::array<int, 2>> pairs;
    for (std::size_t c = 0; c < candidates_.size(); ++c)
        if (solution.assignment.probability[c] > 0.5) pairs.push_back({candidates_[c].left, candidates_[c].right});
    grey.learn(pairs);
}

void ExposureSolver::learnScales(Solution& solution) const {
    ScaleSample sample;
    for (std::size_t c = 0; c < candidates_.size(); ++c) {
        const double p = solution.assignment.probability[c];
        if (p >= 0.5) sample.add(fitOf(c, solution), p);
    }
    if (!sample.isEmpty()) solution.scales = sample.scales(kLeastScale, kMostScale);
}

}  // namespace kestrune::matching
