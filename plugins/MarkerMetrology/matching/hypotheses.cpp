// SPDX-License-Identifier: Apache-2.0
#include "matching/hypotheses.h"

#include <algorithm>
#include <cmath>
#include <optional>

#include "matching/holes.h"
#include "matching/rival_growth.h"
#include "parallel/parallel_loop.h"

namespace kestrune::matching {
namespace {

constexpr int kRounds = 6, kRivalRounds = 3;
// An assignment goes on from its own pairs so many times at most, and while that gains as much, nats.
constexpr int kMostPolish = 4, kPolishRounds = 4;
constexpr double kPolished = 1;
constexpr int kMostGrown = 4, kMostShift = 5, kSurfaceRounds = 2;
constexpr double kLeastWorth = -8;
// A rival that matches fewer markers than this share of the best one's is none.
constexpr double kLeastRival = 0.4;
constexpr std::size_t kFewestOfRival = 3;
// Beginnings that share so much lead to one end; solutions that share more are one.
constexpr double kSameBeginning = 0.95, kSameSolution = 0.5;
// What the best assignment must be ahead by, nats.
constexpr double kMargin = 12;
constexpr double kFarAhead = 60;
// An assignment that is behind the best one by more after its first rounds is no rival however it settles: of 1,060
// that were behind by 60 three came near, all from less than 120.
constexpr double kHopeless = 200;
// Nor is one that begins with pairs which agree so much worse than those of the best one: of 1,490 those that came near
// had begun with up to 200.
constexpr double kHopelessStart = 300;
// Once it went on from its own pairs it hardly changes: of 170 that were behind by 12 then, none came near.
constexpr double kBehind = 60;
// Candidates of all rivals together, 2 us each in a round; and rivals.
constexpr int kMostWork = 60'000, kLeastRivals = 3, kMostRivals = 24;
constexpr double kMostMisfit = 20;
// A pattern that is shifted along the baseline is the same scene at another scale: then differences of chi-square are
// those of noise alone, each half of it with this variance, and their sum is taken to be chance up to so many of its
// standard deviations.
constexpr double kChanceVariance = 2.5, kChance = 4;
// What two assignments taught differs by up to so much, nats, where either is as good as the other.
constexpr double kLearntMargin = 100;
// Evidence of whole assignments that differ here and there is less certain than its nats say, by this factor.
constexpr double kTempered = 5, kMostBehindMean = 30 * kTempered;  // e^-30 counts for nothing
constexpr double kNoRival = 1e6;

using Pairs = std::vector<int>;  ///< candidates, ascending

Pairs pairsOf(const Solution& solution) {
    Pairs pairs;
    for (const int c : solution.partner)
        if (c >= 0) pairs.push_back(c);
    std::sort(pairs.begin(), pairs.end());
    return pairs;
}

double sharedBy(const Pairs& a, const Pairs& b) {
    if (a.empty() || b.empty()) return 0;
    Pairs both;
    std::set_intersection(a.begin(), a.end(), b.begin(), b.end(), std::back_inserter(both));
    return static_cast<double>(both.size()) / static_cast<double>(std::min(a.size(), b.size()));
}

/// The partners of some markers moved by so many places along their lines; pairs that are in their way are left out.
Pairs shifted(const Solution& from, const std::vector<Candidate>& candidates, const std::vector<double>& worth,
              const std::vector<char>& isMoved, int places) {
    std::vector<std::vector<int>> own(from.partner.size());
    const auto leftOf = [&](int c) { return static_cast<std::size_t>(candidates[static_cast<std::size_t>(c)].left); };
    const auto rightOf = [&](int c) { return candidates[static_cast<std::size_t>(c)].right; };
    for (int c = 0; c < static_cast<int>(candidates.size()); ++c)
        if (isMoved[leftOf(c)] && (worth[static_cast<std::size_t>(c)] >= kLeastWorth || from.partner[leftOf(c)] == c))
            own[leftOf(c)].push_back(c);
    Pairs pairs;
    std::vector<int> taken;
    for (std::size_t i = 0; i < own.size(); ++i) {
        if (from.partner[i] < 0 || !isMoved[i]) continue;
        std::sort(own[i].begin(), own[i].end(), [&](int a, int b) {
            return candidates[static_cast<std::size_t>(a)].agreement.fits[0].logDepth <
                   candidates[static_cast<std::size_t>(b)].agreement.fits[0].logDepth;
        });
        const auto at = std::find(own[i].begin(), own[i].end(), from.partner[i]) - own[i].begin() + places;
        if (at < 0 || at >= static_cast<std::ptrdiff_t>(own[i].size())) continue;
        pairs.push_back(own[i][static_cast<std::size_t>(at)]);
        taken.push_back(rightOf(pairs.back()));
    }
    std::sort(taken.begin(), taken.end());
    for (std::size_t i = 0; i < own.size(); ++i)
        if (from.partner[i] >= 0 && !isMoved[i] &&
            !std::binary_search(taken.begin(), taken.end(), rightOf(from.partner[i])))
            pairs.push_back(from.partner[i]);
    std::sort(pairs.begin(), pairs.end());
    return pairs;
}

/// An assignment that was tried.
struct Tried {
    Solution solution;
    Pairs pairs;
    int polishes = 0;
    bool isSettled = false;       ///< would lead to itself again
    std::optional<double> holes;  ///< their evidence, once it is asked for

    explicit Tried(Solution its) : solution(std::move(its)), pairs(pairsOf(solution)) {}

    /// Goes on with what its own pairs led to.
    void polish(Solution next) {
        const double gained = next.logEvidence() - logEvidence();
        Pairs now = gained > 0 ? pairsOf(next) : pairs;
        isSettled = !(gained >= kPolished) || now == pairs || ++polishes == kMostPolish;
        if (!(gained > 0)) return;
        solution = std::move(next);
        pairs = std::move(now);
        holes.reset();
    }
    double logEvidence() const { return solution.logEvidence(); }
    std::size_t leastOfRival() const {
        return static_cast<std::size_t>(std::max<double>(kFewestOfRival, kLeastRival * solution.pairs));
    }
};

class Trial {
  public:
    Trial(const Views& views, const ExposureSolver& solver)
        : views_(views), solver_(solver), worth_(solver.firstWeights()) {
        add(solver.solve({}, kRounds));
    }

    /// Until a rival is found that is about as probable, or there are no more.
    void run() {
        attempt(grownAssignments(views_, solver_.candidates(), worth_, kLeastWorth, kMostGrown));
        Pairs from = tried_[best()].pairs;
        for (int k = 1; k <= kMostShift && !hasRival(); ++k) {
            attempt({shiftedBy(k), shiftedBy(-k)});
            if (tried_[best()].pairs == from) continue;
            from = tried_[best()].pairs;
            k = 0;  // again from the better one
        }
        for (int round = 0; round < kSurfaceRounds && !hasRival(); ++round) {
            attempt(surfacesShifted());
            if (tried_[best()].pairs == from) return;
            from = tried_[best()].pairs;
        }
    }

    Decision decision() {
        const std::size_t first = best();
        const Margin margin = marginOf(first);
        Decision result;
        result.repeats = margin.ahead < kMargin;
        if (result.repeats) result.rival = tried_[margin.rival].solution;
        std::vector<double> mean = averaged(first);
        result.best = std::move(tried_[first].solution);
        result.best.assignment.probability = std::move(mean);
        return result;
    }

  private:
    struct Margin {
        double ahead;
        std::size_t rival;
    };

    std::size_t best() const {
        std::size_t best = 0;
        for (std::size_t k = 1; k < tried_.size(); ++k)
            if (tried_[k].logEvidence() > tried_[best].logEvidence()) best = k;
        return best;
    }

    Margin marginOf(std::size_t k) {
        Margin margin{kNoRival, k};
        for (std::size_t other = 0; other < tried_.size(); ++other) {
            if (other == k || tried_[other].pairs.size() < tried_[k].leastOfRival() ||
                sharedBy(tried_[k].pairs, tried_[other].pairs) > kSameSolution)
                continue;
            const double by = aheadOf(k, other);
            if (by < margin.ahead) margin = {by, other};
        }
        return margin;
    }

    /// Probabilities over all solutions that differ from this one only here and there. What a solution taught itself
    /// makes it sure of its pairs; that there are others, nearly as good, is known only here. One that matches fewer
    /// markers, but those that both match as well, is as good: its leftovers may be seen by one eye alone.
    std::vector<double> averaged(std::size_t k) {
        std::vector<double> mean(solver_.candidates().size(), 0.0);
        double weights = 0;
        for (std::size_t other = 0; other < tried_.size(); ++other) {
            if (other != k && sharedBy(tried_[k].pairs, tried_[other].pairs) <= kSameSolution) continue;
            const Lead lead = leadOf(k, other);
            const double behind = lead.shared < kFewestOfRival ? lead.all : std::min(lead.all, lead.common);
            if (!(behind < kMostBehindMean)) continue;
            const double weight = std::exp(-std::max(0.0, behind) / kTempered);
            solver_.doubtLonelySurfaces(tried_[other].solution);
            const std::vector<double>& its = tried_[other].solution.assignment.probability;
            for (std::size_t c = 0; c < mean.size(); ++c) mean[c] += weight * its[c];
            weights += weight;
        }
        for (double& p : mean) p /= weights;
        return mean;
    }

    /// Of two with the same pairs the one that settled better stays.
    void add(Tried tried) {
        for (Tried& other : tried_) {
            if (other.pairs != tried.pairs) continue;
            tried.isSettled = other.isSettled = tried.isSettled || other.isSettled;
            if (tried.logEvidence() > other.logEvidence()) other = std::move(tried);
            return;
        }
        tried_.push_back(std::move(tried));
    }
    void add(Solution solution) { add(Tried(std::move(solution))); }

    /// Those of the starts that lead elsewhere, each by itself.
    void attempt(const std::vector<Pairs>& all) {
        std::vector<Pairs> starts;
        bool isAlone = true;
        for (const Pairs& start : all) {
            if (static_cast<int>(starts_.size()) >= mostRivals()) break;
            const auto isAlike = [&](const Pairs& other) { return sharedBy(start, other) > kSameBeginning; };
            const bool isKnown =
                std::any_of(starts_.begin(), starts_.end(), isAlike) ||
                std::any_of(tried_.begin(), tried_.end(), [&](const Tried& other) { return isAlike(other.pairs); });
            if (start.size() < tried_[best()].leastOfRival() || isKnown) continue;
            isAlone = false;
            if (excessOf(start) > kHopelessStart) continue;
            starts_.push_back(start);
            starts.push_back(start);
        }
        std::vector<Solution> found(starts.size());
        forEachLongItem(static_cast<int>(starts.size()), [&](int k) {
            found[static_cast<std::size_t>(k)] = solver_.solve(starts[static_cast<std::size_t>(k)], kRivalRounds);
        });
        for (Solution& solution : found) add(std::move(solution));
        if (!isAlone) polish();
    }

    /// By how much a start's pairs agree worse than those of the best assignment, half of chi-square.
    double excessOf(const Pairs& start) const {
        const Solution& now = tried_[best()].solution;
        double excess = 0;
        for (const int c : start) {
            const int own =
                now.partner[static_cast<std::size_t>(solver_.candidates()[static_cast<std::size_t>(c)].left)];
            if (own >= 0) excess += misfitOf(now, c, now.scales) - misfitOf(now, own, now.scales);
        }
        return excess;
    }

    /// Whether going on from its pairs may make it the best one or a rival.
    bool isPromising(std::size_t k, std::size_t first) {
        if (tried_[k].isSettled) return false;
        const bool isNew = tried_[k].polishes == 0 || sharedBy(tried_[first].pairs, tried_[k].pairs) > kSameSolution;
        return k == first || aheadOf(first, k) < (isNew ? kHopeless : kBehind);
    }

    /// Goes on from their own pairs as if they were certain: in crowds expectations alone settle slowly.
    void polish() {
        while (true) {
            std::vector<std::size_t> wanted;
            for (std::size_t k = 0, first = best(); k < tried_.size(); ++k)
                if (isPromising(k, first)) wanted.push_back(k);
            if (wanted.empty()) return;
            std::vector<Solution> found(wanted.size());
            forEachLongItem(static_cast<int>(wanted.size()), [&](int i) {
                const auto k = static_cast<std::size_t>(i);
                found[k] = solver_.solve(tried_[wanted[k]].pairs, kPolishRounds);
            });
            std::vector<Tried> before = std::move(tried_);
            for (std::size_t k = 0; k < wanted.size(); ++k) before[wanted[k]].polish(std::move(found[k]));
            tried_.clear();
            for (Tried& tried : before) add(std::move(tried));
        }
    }

    /// So many as there is time for.
    int mostRivals() const {
        return std::clamp(kMostWork / std::max(1, static_cast<int>(worth_.size())), kLeastRivals, kMostRivals);
    }

    Pairs shiftedBy(int places) const {
        const Solution& solution = tried_[best()].solution;
        return shifted(solution, solver_.candidates(), worth_, std::vector<char>(solution.partner.size(), 1), places);
    }

    /// Each surface of the best assignment moved by itself.
    std::vector<Pairs> surfacesShifted() const {
        const Solution& solution = tried_[best()].solution;
        const Pairs& pairs = tried_[best()].pairs;
        std::vector<SeenPair> seen;
        for (const int c : pairs) seen.push_back(solver_.seenPair(static_cast<std::size_t>(c), solution));
        const std::vector<int> surface = Surfaces(seen).surfaces();
        std::vector<Pairs> starts;
        for (int number = 0; number < static_cast<int>(surface.size()); ++number) {
            std::vector<char> isMoved(solution.partner.size(), 0);
            std::size_t size = 0;
            for (std::size_t k = 0; k < surface.size(); ++k) {
                if (surface[k] != number) continue;
                isMoved[static_cast<std::size_t>(seen[k].left)] = 1;
                ++size;
            }
            if (size < kFewestOfRival || size == pairs.size()) continue;
            for (const int places : {1, -1}) {
                Pairs start = shifted(solution, solver_.candidates(), worth_, isMoved, places);
                const auto moved = std::count_if(start.begin(), start.end(), [&](int c) {
                    return isMoved[static_cast<std::size_t>(solver_.candidates()[static_cast<std::size_t>(c)].left)];
                });
                if (2 * static_cast<std::size_t>(moved) >= size) starts.push_back(std::move(start));
            }
        }
        return starts;
    }

    bool hasRival() { return marginOf(best()).ahead < kMargin; }

    /// By how much one solution is better than another, nats.
    struct Lead {
        double all = 0;          ///< by all that was seen
        double common = 0;       ///< by the markers that both match
        double measured = 0;     ///< the part of it that no solution taught itself
        std::size_t shared = 0;  ///< markers that both match
    };

    Lead leadOf(std::size_t first, std::size_t second) const {
        const Solution &a = tried_[first].solution, &b = tried_[second].solution;
        Lead lead;
        lead.all = a.logEvidence() - b.logEvidence();
        const Scales scales{std::min(a.scales.centre, b.scales.centre), std::min(a.scales.shape, b.scales.shape)};
        for (std::size_t i = 0; i < a.partner.size(); ++i) {
            if (a.partner[i] < 0 || b.partner[i] < 0) continue;
            ++lead.shared;
            lead.common += a.evidence[static_cast<std::size_t>(a.partner[i])].ofPair() -
                           b.evidence[static_cast<std::size_t>(b.partner[i])].ofPair();
            lead.measured += misfitOf(b, b.partner[i], scales) - misfitOf(a, a.partner[i], scales) +
                             solver_.knownEvidence(a, a.partner[i]) - solver_.knownEvidence(b, b.partner[i]);
        }
        return lead;
    }

    /// By how much the first is the better one as a whole, nats: by all that was seen, and by the markers that both
    /// match. Of these what is measured counts beyond what chance brings, and what each taught itself beyond a margin.
    double aheadOf(std::size_t first, std::size_t second) {
        const Lead lead = leadOf(first, second);
        if (lead.shared < kFewestOfRival) return lead.all;
        const double learnt = lead.common - lead.measured, beyond = std::max(0.0, std::abs(learnt) - kLearntMargin);
        double ahead = lead.measured - kChance * std::sqrt(kChanceVariance * static_cast<double>(lead.shared)) +
                       std::copysign(beyond, learnt);
        if (ahead < kFarAhead)  // what is missing here and there may decide
            ahead += evidenceOfHoles(first) - evidenceOfHoles(second);
        return std::min(lead.all, ahead);
    }

    double evidenceOfHoles(std::size_t k) {
        Tried& tried = tried_[k];
        if (!tried.holes) tried.holes = holesOf(views_, solver_, tried.solution).logEvidence();
        return *tried.holes;
    }

    /// Half of the chi-square of a pair, outliers cut.
    double misfitOf(const Solution& solution, int candidate, const Scales& scales) const {
        const CircleFit& fit = solver_.fitOf(static_cast<std::size_t>(candidate), solution);
        const double shape = fit.chiSquare / (scales.shape * scales.shape);
        const double z = fit.epipolar / (scales.centre * fit.sigmaEpipolar);
        return 0.5 * (std::min(shape, kMostMisfit) + std::min(z * z, kMostMisfit));
    }

    const Views& views_;
    const ExposureSolver& solver_;
    std::vector<double> worth_;
    std::vector<Tried> tried_;
    std::vector<Pairs> starts_;
};

}  // namespace

Decision decide(const Views& views, const ExposureSolver& solver) {
    Trial trial(views, solver);
    trial.run();
    return trial.decision();
}

}  // namespace kestrune::matching
