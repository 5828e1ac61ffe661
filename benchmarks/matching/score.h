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
    long right = 0, wrong = 0;
    void add(const Tally& other) { right += other.right, wrong += other.wrong; }
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

/// A pair that is wrong and said to be sure.
struct WrongPair {
    int left, right;  ///< indices into the lists
    std::array<int, 2> identity;
    double probability;
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

    /// Whether nothing stands against the exposure.
    bool isAccepted() const { return objection == MatchObjection::none || objection == MatchObjection::rigMoved; }
};

SceneScore judge(const MatchingScene& scene, int number, const Matcher& matcher, const Told& told);

}  // namespace kestrune::bench
