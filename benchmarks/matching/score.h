// SPDX-License-Identifier: Apache-2.0
//
// Pairs against the truth.
#pragma once

#include <array>
#include <string>
#include <vector>

#include "matchers.h"

namespace kestrune::bench {

/// Probabilities from which on a sure pair is counted.
constexpr std::array kLevels{0.999, 0.9999, 0.99999};

struct Tally {
    /// Pairs of one marker that an eye measures wrongly, for instance since it sees a half of it, are counted apart.
    long right = 0, wrong = 0, off = 0;
    void add(const Tally& other) { right += other.right, wrong += other.wrong, off += other.off; }
};

/// Claims of like probability: those of 0.5 and more by how much is missing to 1, that they are wrong; the others by
/// what they say, that they are right.
struct Claims {
    long count = 0, happened = 0;
    double told = 0;  ///< sum of what was said to happen

    void add(const Claims& other) { count += other.count, happened += other.happened, told += other.told; }
};

constexpr std::size_t kDecades = 7;  ///< below 1e-6, 1e-5, ..., 0.1, 0.5
const char* decadeName(std::size_t decade);

struct Reliability {
    std::array<Claims, kDecades> likely, unlikely;

    void add(double probability, bool isRight);
    void add(const Reliability& other);
};

/// A pair that is wrong, or one of whose markers is measured wrongly, and that is said to be sure.
struct WrongPair {
    int left, right;  ///< indices into the lists
    std::array<int, 2> identity;
    double probability;
};

/// A marker that both eyes see and that is in no sure pair.
struct LostMarker {
    int left = -1, right = -1, number = -1;  ///< indices into the lists, and of the marker
    double probability = 0;                  ///< of the right pair
    bool isBest = false;                     ///< whether the assignment has the right pair
    PairCues cues;                           ///< of it, if it has
    std::array<double, 2> off{};             ///< distance of each eye's centre from the true one, px
    std::array<double, 2> square{};          ///< the same over its covariance: chi-square of 2 degrees of freedom
    std::array<RefinementStatus, 2> status{};
    std::array<double, 2> residual{};
};

struct SceneScore {
    SceneKind kind;
    int number = 0;  ///< of the scene in its series
    std::string matcher;
    bool tellsProbabilities = true;
    std::array<std::size_t, 2> markers{};
    int common = 0;                            ///< markers that both eyes see
    std::array<Tally, kLevels.size()> sure{};  ///< sure pairs from each level on
    Tally best;                                ///< pairs of left markers that both eyes see
    Tally pairs;                               ///< all
    int nearlySure = 0;                        ///< pairs of 0.99 and more, whether sure or not
    Reliability reliability;
    MatchObjection objection = MatchObjection::none;
    double moved = 0;  ///< true size, px
    MovedRig told;
    double seconds = 0;
    std::vector<WrongPair> wrong;
    std::vector<LostMarker> lost;  ///< of matchers that tell probabilities

    /// Whether nothing stands against the exposure.
    bool isAccepted() const { return objection == MatchObjection::none || objection == MatchObjection::rigMoved; }
};

SceneScore judge(const MatchingScene& scene, int number, const Matcher& matcher, const Told& told);

}  // namespace kestrune::bench
