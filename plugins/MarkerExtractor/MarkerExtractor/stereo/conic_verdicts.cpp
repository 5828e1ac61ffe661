// SPDX-License-Identifier: Apache-2.0
#include "MarkerExtractor/stereo/conic_verdicts.h"

#include <algorithm>
#include <cmath>

namespace kestrune {

namespace {

/// Best score that each marker of one eye competes with.
class BestScores {
  public:
    explicit BestScores(std::size_t markers) : best_(markers, 0) {}
    void offer(int marker, double score) {
        double& best = best_[static_cast<std::size_t>(marker)];
        best = std::fmax(best, score);
    }
    double of(int marker) const { return best_[static_cast<std::size_t>(marker)]; }

  private:
    std::vector<double> best_;
};

}  // namespace

void explainCandidates(const std::vector<DiscCandidate>& candidates, const std::vector<DiscMatch>& matches,
                       const RectifiedCentres& centres, const PlaceBounds& bounds, PairVerdicts& verdicts) {
    BestScores left(centres.left.size()), right(centres.right.size());
    for (const DiscCandidate& c : candidates) {
        if (c.verdict.gate != PairGate::score) continue;
        left.offer(c.left, c.score);
        right.offer(c.right, c.score);
    }
    auto candidate = candidates.begin();
    auto match = matches.begin();  // both in the order of the candidates
    for (PairVerdict& verdict : verdicts) {
        if (verdict.gate != PairGate::none) continue;
        verdict = candidate->verdict;
        if (verdict.gate == PairGate::score) verdict.least = std::max(left.of(verdict.left), right.of(verdict.right));
        if (match != matches.end() && match->left == verdict.left && match->right == verdict.right) {
            verdict.gate = PairGate::none;
            ++match;
        }
        ++candidate;
    }
    const auto rowOf = [](const cv::Point2f& centre) { return static_cast<double>(centre.y); };
    addNearestRows(centres.left, centres.right, rowOf, bounds.maxRowDifference, verdicts);
}

}  // namespace kestrune
