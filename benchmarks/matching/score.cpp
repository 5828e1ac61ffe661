// SPDX-License-Identifier: Apache-2.0
#include "score.h"

#include <algorithm>
#include <cmath>
#include <map>
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

enum class Verdict { right, wrong, off };

Verdict verdictOf(const MatchingScene& scene, int left, int right) {
    const int marker = scene.markerOf(0, left);
    if (marker < 0 || marker != scene.markerOf(1, right)) return Verdict::wrong;
    const bool isGood = scene.identity[0][static_cast<std::size_t>(left)] >= 0 &&
                        scene.identity[1][static_cast<std::size_t>(right)] >= 0;
    return isGood ? Verdict::right : Verdict::off;
}

/// Sets how far an eye's centre is off.
void tellError(LostMarker& lost, std::size_t eye, const MatchingScene& scene) {
    const bool exchanged = scene.kind.trouble == Trouble::exchanged;
    const scene::PinholeCamera& camera = (eye == 0) != exchanged ? scene.truth.left : scene.truth.right;
    const auto& e = scene.markers[eye][static_cast<std::size_t>(eye == 0 ? lost.left : lost.right)];
    const cv::Point2d truth = scene::projectDisc(camera, scene.discs[static_cast<std::size_t>(lost.number)]).centre;
    const cv::Vec2d off(e.centre.x - truth.x, e.centre.y - truth.y);
    const cv::Matx22d covariance(e.covariance(0, 0), e.covariance(0, 1), e.covariance(1, 0), e.covariance(1, 1));
    lost.off[eye] = cv::norm(off);
    lost.square[eye] = off.dot(covariance.inv() * off);
    lost.status[eye] = e.status;
    lost.residual[eye] = e.residual;
}

std::vector<LostMarker> lostMarkers(const MatchingScene& scene, const StereoMatch& match) {
    std::map<int, int> right;
    for (std::size_t k = 0; k < scene.identity[1].size(); ++k)
        if (scene.identity[1][k] >= 0) right[scene.identity[1][k]] = static_cast<int>(k);
    std::vector<LostMarker> all;
    for (std::size_t k = 0; k < scene.identity[0].size(); ++k) {
        const auto partner = right.find(scene.identity[0][k]);
        if (partner == right.end()) continue;
        LostMarker lost;
        lost.left = static_cast<int>(k), lost.right = partner->second, lost.number = partner->first;
        const auto isIt = [&](const auto& pair) { return pair.left == lost.left && pair.right == lost.right; };
        const auto pair = std::find_if(match.pairs.begin(), match.pairs.end(), isIt);
        if (pair != match.pairs.end()) {
            if (pair->sure) continue;
            lost.isBest = true;
            lost.probability = pair->probability;
            lost.cues = pair->cues;
        } else if (const auto rival = std::find_if(match.rivals.begin(), match.rivals.end(), isIt);
                   rival != match.rivals.end()) {
            lost.probability = rival->probability;
        }
        for (std::size_t eye = 0; eye < 2; ++eye) tellError(lost, eye, scene);
        all.push_back(lost);
    }
    return all;
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
        const Verdict verdict = verdictOf(scene, pair.left, pair.right);
        const std::array identity{scene.identity[0][static_cast<std::size_t>(pair.left)],
                                  scene.identity[1][static_cast<std::size_t>(pair.right)]};
        const auto count = [verdict](Tally& tally) {
            ++(verdict == Verdict::right ? tally.right : verdict == Verdict::wrong ? tally.wrong : tally.off);
        };
        count(score.pairs);
        if (identity[0] >= 0 && right.count(identity[0]) > 0) count(score.best);
        if (pair.probability >= kNearlySure) ++score.nearlySure;
        for (std::size_t k = 0; k < kLevels.size(); ++k)
            if (pair.sure && pair.probability >= kLevels[k]) count(score.sure[k]);
        if (pair.sure && verdict != Verdict::right)
            score.wrong.push_back({pair.left, pair.right, identity, pair.probability});
        if (verdict != Verdict::off) score.reliability.add(pair.probability, verdict == Verdict::right);
    }
    for (const PairChance& rival : matched.match.rivals)
        if (const Verdict verdict = verdictOf(scene, rival.left, rival.right); verdict != Verdict::off)
            score.reliability.add(rival.probability, verdict == Verdict::right);
    if (matched.tellsProbabilities) score.lost = lostMarkers(scene, matched.match);
    return score;
}

}  // namespace kestrune::bench
