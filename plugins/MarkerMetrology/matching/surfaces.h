// SPDX-License-Identifier: Apache-2.0
//
// Which pairs others bear out. Markers of a pattern that are left over in both eyes can be paired by one common shift:
// they then stand on a surface of their own, with radii of their own, and each of them confirms the others. So pairs
// on a surface that is not the scene's largest need others elsewhere that have their size. Where there are no usual
// sizes, neighbours of other sizes must do. Where radii are known beforehand, they decide.
#pragma once

#include <vector>

namespace kestrune::matching {

/// A pair by its place.
struct SeenPair {
    int left, right;
    double u, v;  ///< tangents of the left eye's direction
    double logRadius, sigmaRadius, logDepth, sigmaDepth;
    bool isNominal = false;  ///< has a radius that is known beforehand
};

class Surfaces {
  public:
    /// @param believed  pairs that are more probable than not; each marker is in one at most.
    explicit Surfaces(std::vector<SeenPair> believed);

    /// Whether a pair stands on a surface that holds half of all pairs, or has a size that is usual elsewhere, or has
    /// the depth of its neighbours where no size is usual; by its radius alone where radii are known.
    bool bearOut(const SeenPair& pair) const;

    /// Of each pair the number of the first one of its surface.
    const std::vector<int>& surfaces() const { return surface_; }

  private:
    void joinNeighbours();
    std::vector<int> agreeingWith(const SeenPair& pair) const;
    int surfaceOf(const std::vector<int>& agreeing) const;
    bool isUsualBeside(int surface, const SeenPair& pair) const;

    std::vector<SeenPair> believed_;
    std::vector<int> surface_;  ///< of each pair the first pair of its surface
    std::vector<int> size_;     ///< of the surface that begins with a pair
    bool hasUsualSizes_ = false, hasNominalSizes_ = false;
};

}  // namespace kestrune::matching
