// SPDX-License-Identifier: Apache-2.0
//
// Range of a number over all candidates, and its typical uncertainty.
#pragma once

#include <algorithm>
#include <vector>

namespace kestrune::matching {

/// Of the size of a normal number, in its standard deviations.
inline constexpr double kMedianOfNormal = 0.6745;
/// Of a chi-square of 3 degrees of freedom.
inline constexpr double kMedianOfChi3 = 2.366;

inline double medianOf(std::vector<double> values, double ofNone) {
    if (values.empty()) return ofNone;
    const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
    std::nth_element(values.begin(), middle, values.end());
    return *middle;
}

/// Median, within bounds that a grid of kernels can be made for.
inline double typicalSigma(const std::vector<double>& sigmas, double ofNone) {
    constexpr double kLeast = 5e-4, kMost = 0.1;
    return std::clamp(medianOf(sigmas, ofNone), kLeast, kMost);
}

class Spread {
  public:
    void add(double value, double sigma) {
        low_ = sigmas_.empty() ? value : std::min(low_, value);
        high_ = sigmas_.empty() ? value : std::max(high_, value);
        sigmas_.push_back(sigma);
    }
    double low() const { return low_ - kMargin; }
    double high() const { return high_ + kMargin; }
    double sigma() const { return typicalSigma(sigmas_, high_ - low_); }

  private:
    static constexpr double kMargin = 0.05;  // of a logarithm, beyond what was seen

    double low_ = 0, high_ = 0;
    std::vector<double> sigmas_;
};

/// A pair below this probability says nothing of the shares of a mixture.
inline constexpr double kLeastForShares = 0.1;

}  // namespace kestrune::matching
