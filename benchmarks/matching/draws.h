// SPDX-License-Identifier: Apache-2.0
//
// Random numbers of a seed.
#pragma once

#include <cmath>
#include <cstdint>
#include <opencv2/core.hpp>
#include <random>

namespace kestrune::bench {

class Draws {
  public:
    /// Generator number `stream` of a seed: streams of one seed are unrelated.
    Draws(std::uint64_t seed, std::uint64_t stream) {
        std::seed_seq words{static_cast<std::uint32_t>(seed), static_cast<std::uint32_t>(seed >> 32),
                            static_cast<std::uint32_t>(stream), static_cast<std::uint32_t>(stream >> 32)};
        random_.seed(words);
    }

    double uniform(double low, double high) { return std::uniform_real_distribution<double>(low, high)(random_); }
    double logUniform(double low, double high) { return std::exp(uniform(std::log(low), std::log(high))); }
    double normal(double sigma = 1) { return sigma * std::normal_distribution<double>()(random_); }
    bool chance(double probability) { return uniform(0, 1) < probability; }
    int whole(int least, int most) { return std::uniform_int_distribution<int>(least, most)(random_); }
    double angle() { return uniform(0, 2 * CV_PI); }

    /// Unit vector of any direction.
    cv::Vec3d direction() {
        const double z = uniform(-1, 1), t = angle(), r = std::sqrt(1 - z * z);
        return {r * std::cos(t), r * std::sin(t), z};
    }

    std::mt19937_64& generator() { return random_; }

  private:
    std::mt19937_64 random_;
};

}  // namespace kestrune::bench
