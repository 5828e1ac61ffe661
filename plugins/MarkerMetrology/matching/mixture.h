// SPDX-License-Identifier: Apache-2.0
//
// Shares of the parts of a mixture of densities, and how they are learnt: each pair counts for the parts by how much of
// its density they are.
#pragma once

#include <array>
#include <cstddef>

namespace kestrune::matching {

template <std::size_t N>
using Parts = std::array<double, N>;

template <std::size_t N>
class Mixture {
  public:
    Mixture() { share_.fill(1.0 / N); }
    void setShares(const Parts<N>& shares) { share_ = shares; }
    double share(std::size_t k) const { return share_[k]; }

    double operator()(const Parts<N>& parts) const {
        double sum = kLeast;
        for (std::size_t k = 0; k < N; ++k) sum += share_[k] * parts[k];
        return sum;
    }
    void count(const Parts<N>& parts, double weight) {
        const double scale = weight / (*this)(parts);
        for (std::size_t k = 0; k < N; ++k) counts_[k] += scale * share_[k] * parts[k];
    }
    /// @param held  a part whose share stays as it is; none for N.
    void learn(std::size_t held = N) {
        double sum = 0;
        for (std::size_t k = 0; k < N; ++k)
            if (k != held) sum += counts_[k] += kPseudoCount;
        const double rest = held < N ? 1 - share_[held] : 1;
        for (std::size_t k = 0; k < N; ++k)
            if (k != held) share_[k] = rest * counts_[k] / sum;
        counts_.fill(0);
    }

  private:
    // What no part explains is still not impossible.
    static constexpr double kLeast = 1e-30;
    // Pairs that each part has before any were seen.
    static constexpr double kPseudoCount = 0.2;

    Parts<N> share_, counts_{};
};

}  // namespace kestrune::matching
