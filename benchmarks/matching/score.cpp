// SPDX-License-Identifier: Apache-2.0
#include "score.h"

#include <algorithm>
#include <cmath>
#include <set>

namespace kestrune::bench {
namespace {

constexpr double kNearlySure = 0.99;
constexpr std::array<double, kDecades> kUpTo{1e-6, 1e-5, 1e-4, 1e-3, 1e-2, 0.1, 0.5};

/// Of what is below 0.5.
std::size_t decadeOf(double probability) {
    const auto found = std::find_if(kUpTo.begin(), kUpTo.end(), [&](double limit) { return probability < limit; });
    return std::min<std::size_t>(static_cast<std::size_t>(found - kUpTo.begin()), kDecades - 1);
}

bool isRight(const MatchingScene& scene, int left, int right) {
    const int number = scene.identity[0][static_cast<std::size_t>(left)];
    return number >= 0 && number == scene.identity[1][static_cast<std::size_t>(right)];
}

}  // namespace

const char* decadeName(std::size_t decade) {
    static constexpr std::array names{"below 1e-6",    "1e-6 to 1e-5", "1e-5 to 1e-4", "1e-4 to 0.001",
                                      "0.001 to 0.01", "0.01 to 0.1",  "0.1 to 0.5"};
    return names[decade];
}

void Reliability::add(double probability, bool isRight) {
    const bool isLikely = probability >= 0.5;
    const double event = isLikely ? 1 - probability : probability;
    Claims& claims = (isLikely ? likely : unlikely)[decadeOf(event)];
    ++claims.count;
    claims.told += event;
    if (isRight != isLikely) ++claims.happened;
}

void Reliability::add(const Reliability& other) {
    for (std::size_t k = 0; k < kDecades; ++k) {
        likely[k].add(other.likely[k]);
        unlikely[k].add(other.unlikely[k]);
    }
}

SceneScore judge(const MatchingScene& scene, int number, const Matcher& matcher, const Told& told) {
    const Matched matched = matcher.match(scene, told);
    SceneScore score;
    score.kind = scene.kind;
    score.number = number;
    score.matcher = matcher.name;
    score.tellsProbabilities = matched.tellsProbabilities;
    score.markers = {scene.markers[0].size(), scene.markers[1].size()};
    score.common = scene.common();
    score.objection = matched.match.objection;
    score.moved = scene.moved;
    score.told = matched.match.moved;
    score.seconds = matched.seconds;
    const std::set<int> right(scene.identity[1].begin(), scene.identity[1].end());
    for (const MatchedPair& pair : matched.match.pairs) {
        const bool good = isRight(scene, pair.left, pair.right);
        const std::array identity{scene.identity[0][static_cast<std::size_t>(pair.left)],
                                  scene.identity[1][static_cast<std::size_t>(pair.right)]};
        const auto count = [good](Tally& tally) { ++(good ? tally.right : tally.wrong); };
        count(score.pairs);
        if (identity[0] >= 0 && right.count(identity[0]) > 0) count(score.best);
        if (pair.probability >= kNearlySure) ++score.nearlySure;
        for (std::size_t k = 0; k < kLevels.size(); ++k)
            if (pair.sure && pair.probability >= kLevels[k]) count(score.sure[k]);
        if (pair.sure && !good) score.wrong.push_back({pair.left, pair.right, identity, pair.probability});
        score.reliability.add(pair.probability, good);
    }
    for (const PairChance& rival : matched.match.rivals)
        score.reliability.add(rival.probability, isRight(scene, rival.left, rival.right));
    return score;
}

}  // namespace kestrune::bench
