// SPDX-License-Identifier: Apache-2.0
//
// By how much the standard deviations that markers come with are too small or too large, as their pairs show it:
// medians of the distances from the epipolar planes and of the chi-squares of the circles, so that a few outliers and
// wrong pairs do not count.
#pragma once

#include <utility>
#include <vector>

#include "matching/circle_agreement.h"

namespace kestrune::matching {

/// Factors of told standard deviations: of the centres, and of the half axes.
struct Scales {
    double centre = 1, shape = 1;
};

class ScaleSample {
  public:
    void add(const CircleFit& fit, double probability);
    bool isEmpty() const { return distances_.empty(); }
    /// Few pairs hardly leave them. @param least, most  that either may be.
    Scales scales(double least, double most) const;

  private:
    std::vector<std::pair<double, double>> distances_, shapes_;  ///< value and probability
    double count_ = 0;
};

}  // namespace kestrune::matching
