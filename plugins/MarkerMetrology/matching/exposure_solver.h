// SPDX-License-Identifier: Apache-2.0
//
// Probabilities of all pairs of an exposure, for a rig that is believed: expectation and maximisation in turns. Pairs
// are weighed against both their markers being single, by
//   odds x p(both ellipses | one disc) / (p(left | single) p(right | single)),
// the odds being those of the numbers of pairs and of single markers; then the scene model, the numbers and the scales
// of the sigmas learn from the marginals.
#pragma once

#include <vector>

#include "kestrune/MarkerMetrology/matching.h"
#include "matching/assignment.h"
#include "matching/candidates.h"
#include "matching/grey_model.h"
#include "matching/scene_model.h"
#include "matching/surfaces.h"

namespace kestrune::matching {

/// What speaks for a candidate, nats.
struct Evidence {
    int fit = 0;          ///< the end that counts most
    double geometry = 0;  ///< epipolar plane and circles
    PairDensity density{};
    double grey = 0;       ///< levels and polarity
    double object = 0;     ///< a known object
    PairDensity chance{};  ///< what `density` would be of any marker
    double odds = 0;       ///< against both markers being single, without the former

    double ofPair() const { return geometry + density.sum() + grey + object; }
};

struct Solution {
    std::vector<Evidence> evidence;  ///< of each candidate
    std::vector<double> logWeights;  ///< of each
    Assignment assignment;           ///< of the candidates
    std::vector<int> partner;        ///< of each left line its candidate in the most probable assignment, or -1
    Scales scales;
    double pairs = 0;      ///< expected number
    double logSingle = 0;  ///< log density of all markers if none were in a pair

    /// Of each candidate the end that counts most.
    std::vector<int> ends() const {
        std::vector<int> result;
        for (const Evidence& e : evidence) result.push_back(e.fit);
        return result;
    }
    /// Log density of all that both eyes saw: what whole assignments are compared by.
    double logEvidence() const { return assignment.logSum + logSingle; }
};

/// What is known before the exposure, in the terms of this room.
struct Beforehand {
    NominalRadii radii;
    std::array<double, 2> depth{};  ///< nearest and farthest z of the left camera; zeros: not known
    std::vector<KnownMarker> object;
    bool estimateSigmas = true;
};

class ExposureSolver {
  public:
    ExposureSolver(const Views& views, const EpipolarFrame& frame, const Beforehand& known);

    const std::vector<Candidate>& candidates() const { return candidates_; }
    double baseline() const { return baseline_; }
    /// The end of a candidate that counts most.
    const CircleFit& fitOf(std::size_t candidate, const Solution& solution) const;

    /// @param start  candidates that are believed to begin with; none: each is worth what its geometry says.
    Solution solve(const std::vector<int>& start, int rounds) const;

    /// Once a solution is to be told: lowers the probability of pairs that only each other bear out.
    void doubtLonelySurfaces(Solution& solution, Effort effort = Effort::all) const;

    SeenPair seenPair(std::size_t candidate, const Solution& solution) const;

    /// What else speaks for each candidate, nats. @param nats  none: nothing.
    void setObject(std::vector<double> nats) { object_ = std::move(nats); }
    bool hasObject() const { return !object_.empty(); }

    /// What levels, a known object and nominal radii say of a candidate: nothing that the exposure itself taught.
    double knownEvidence(const Solution& solution, int candidate) const {
        const Evidence& evidence = solution.evidence[static_cast<std::size_t>(candidate)];
        return evidence.grey + evidence.object + evidence.density.knownRadius;
    }

    /// What each candidate is worth before anything is learnt, nats.
    const std::vector<double>& firstWeights() const { return firstWeights_; }

  private:
    void weigh(const SceneModel& model, const GreyModel& grey, Solution& solution) const;
    double geometryOf(const CircleFit& fit, const Scales& scales) const;
    void assignPairs(Effort effort, Solution& solution) const;
    Assignment assignmentBy(const std::vector<double>& logWeights, Effort effort) const;
    void learnGrey(const Solution& solution, GreyModel& grey) const;
    void learnScales(Solution& solution) const;
    double firstPairs() const;
    double singles(std::size_t eye, double pairs) const;
    double logOdds(double pairs) const;
    double firstScale() const;
    void dropHopeless();

    void keepDepths(const EpipolarFrame& frame);

    const Views& views_;
    double baseline_;
    const Beforehand& known_;
    std::vector<Candidate> candidates_;
    double firstScale_ = 1;  ///< of the distances from the epipolar planes
    std::vector<double> firstWeights_;
    std::vector<double> object_;     ///< of each candidate; empty
    std::vector<double> logPlaces_;  ///< densities of the right markers' places
};

}  // namespace kestrune::matching
