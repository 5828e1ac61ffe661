// SPDX-License-Identifier: Apache-2.0
//
// What the levels of two markers say of whether they are one. A marker that is darker than its ground in one eye is in
// the other. Contrasts differ between the eyes by a common factor, and from pair to pair by a spread that the exposure
// shows; where all markers are alike, that says nothing.
#pragma once

#include <array>
#include <vector>

#include "matching/views.h"

namespace kestrune::matching {

class GreyModel {
  public:
    explicit GreyModel(const Views& views);

    /// @param pairs  lines of both eyes that are believed to be one.
    void learn(const std::vector<std::array<int, 2>>& pairs);

    /// Logarithm of how much more likely the contrasts are for a pair than by chance; 0 where one is not known.
    double evidence(int left, int right) const;

  private:
    /// The contrast of a marker.
    struct Level {
        double sign = 0, logarithm = 0;  ///< sign 0: it is not known
    };
    const Level& at(std::size_t eye, int line) const { return levels_[eye][static_cast<std::size_t>(line)]; }
    void setChances();

    std::array<std::vector<Level>, 2> levels_;
    bool isKnown_ = false;
    double factor_ = 0, spread_;   ///< of the logarithms
    std::vector<double> chances_;  ///< of each left contrast, the density of the right ones
};

}  // namespace kestrune::matching
