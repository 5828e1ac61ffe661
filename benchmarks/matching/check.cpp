// SPDX-License-Identifier: Apache-2.0
#include "check.h"

#include <fmt/format.h>

#include <algorithm>
#include <map>

#include "draws.h"
#include "rigs.h"
#include "score.h"

namespace kestrune::bench {
namespace {

constexpr std::uint64_t kSeries = 4711;
constexpr int kScenes = 150;
constexpr double kDegrees = 4;       ///< of freedom that two ellipses of a disc leave
constexpr double kChiSlack = 0.15;   ///< five standard deviations of a mean over 10,000 pairs
constexpr double kGridSlack = 0.3;   ///< the same over fewer
constexpr double kLineSlack = 1e-6;  ///< px
constexpr int kClaims = 200000;      ///< of the oracle
constexpr double kRatioSlack = 0.2;

bool tell(const char* what, double value, double low, double high) {
    const bool good = value >= low && value <= high;
    fmt::print("{}: {:.6g}, {:.6g} to {:.6g}{}\n", what, value, low, high, good ? "" : "  WRONG");
    return good;
}

/// Mean chi-square of the pairs of which the right marker has the number of the left one plus `step`.
class Agreement {
  public:
    void add(const MatchingScene& scene, int step) {
        std::map<int, std::size_t> right;
        for (std::size_t k = 0; k < scene.identity[1].size(); ++k) right[scene.identity[1][k]] = k;
        for (std::size_t k = 0; k < scene.identity[0].size(); ++k) {
            const auto partner = right.find(scene.identity[0][k] + step);
            if (scene.identity[0][k] < 0 || partner == right.end()) continue;
            const DiscEstimate disc = measureDisc({scene.markers[0][k], scene.markers[1][partner->second]}, scene.rig);
            sum_ += disc.chiSquare;
            ++pairs_;
            lost_ += !disc.found;
        }
    }
    double mean() const { return sum_ / pairs_; }
    int pairs() const { return pairs_; }
    int lost() const { return lost_; }

  private:
    double sum_ = 0;
    int pairs_ = 0, lost_ = 0;
};

bool checkTruth() {
    Agreement all;
    double farthest = 0;
    int beyond = 0;
    for (int k = 0; k < kScenes; ++k) {
        const MatchingScene scene = makeScene(Trouble::none, kSeries, k);
        all.add(scene, 0);
        farthest = std::max(farthest, scene.moved);
        for (const scene::Disc& disc : scene.discs)
            beyond += disc.centre[2] < scene.depth[0] || disc.centre[2] > scene.depth[1];
    }
    bool good = tell("chi-square of true pairs", all.mean(), kDegrees - kChiSlack, kDegrees + kChiSlack);
    good &= tell("true pairs that are no disc", all.lost(), 0, 0);
    good &= tell("distance of true centres from their epipolar lines, px", farthest, 0, kLineSlack);
    good &= tell("discs beyond the range of depths", beyond, 0, 0);
    return good;
}

/// Columns that the eyes do not share are the only thing that speaks for the truth.
bool checkShifted() {
    Agreement shifted;
    int complete = 0;
    for (int k = 0; k < kScenes; ++k) {
        const MatchingScene scene = makeScene(Trouble::shifted, kSeries, k);
        Agreement best;
        for (const int step : {-scene.kind.shift, scene.kind.shift}) {
            Agreement one;
            one.add(scene, step);
            if (one.pairs() > best.pairs()) best = one;
            if (one.pairs() == static_cast<int>(scene.markers[0].size())) shifted.add(scene, step);
        }
        complete += best.pairs() == static_cast<int>(std::max(scene.markers[0].size(), scene.markers[1].size()));
    }
    bool good = tell("grids that match completely when shifted", complete, kScenes, kScenes);
    good &= tell("chi-square of pairs shifted", shifted.mean(), kDegrees - kGridSlack, kDegrees + kGridSlack);
    return good;
}

bool checkRepetition() {
    int same = 0, other = 0;
    for (int k = 0; k < 10; ++k) {
        const MatchingScene a = makeScene(Trouble::none, kSeries, k), b = makeScene(Trouble::none, kSeries, k),
                            c = makeScene(Trouble::none, kSeries + 1, k);
        const auto isSame = [](const MatchingScene& one, const MatchingScene& two) {
            for (std::size_t eye = 0; eye < 2; ++eye) {
                if (one.identity[eye] != two.identity[eye]) return false;
                for (std::size_t m = 0; m < one.markers[eye].size(); ++m)
                    if (one.markers[eye][m].centre != two.markers[eye][m].centre) return false;
            }
            return true;
        };
        same += isSame(a, b);
        other += isSame(a, c);
    }
    bool good = tell("scenes that come again from their seed", same, 10, 10);
    good &= tell("scenes that come again from another", other, 0, 0);
    return good;
}

/// Claims that are as right as they say.
bool checkReliability() {
    Draws draws(kSeries, 0);
    Reliability reliability;
    for (int k = 0; k < kClaims; ++k) {
        const double small = draws.logUniform(1e-3, 0.5), p = draws.chance(0.5) ? small : 1 - small;
        reliability.add(p, draws.chance(p));
    }
    bool good = true;
    for (std::size_t k = 4; k < kDecades; ++k)
        for (const Claims* claims : {&reliability.likely[k], &reliability.unlikely[k]})
            good &= tell("happened over told of an honest oracle", static_cast<double>(claims->happened) / claims->told,
                         1 - kRatioSlack, 1 + kRatioSlack);
    return good;
}

}  // namespace

bool checkScenes() {
    const bool truth = checkTruth(), shifted = checkShifted(), repetition = checkRepetition();
    return checkReliability() && truth && shifted && repetition;
}

}  // namespace kestrune::bench
