// SPDX-License-Identifier: Apache-2.0
//
// Density of a marker's normal, by solid angle: what normals the other pairs of the exposure have, and its neighbours.
#pragma once

#include <numbers>
#include <vector>

#include "matching/mixture.h"
#include "matching/neighbours.h"

namespace kestrune::matching {

class NormalModel {
  public:
    static constexpr std::size_t kWidths = 3;
    /// broad, all pairs' kernels, neighbours' kernels
    static constexpr std::size_t kParts = 1 + 2 * kWidths;

    NormalModel();

    void learn(const Neighbourhood& neighbourhood);
    void learnShares(const PairGraph& graph, const Neighbourhood& neighbourhood);

    /// @param sigma   of each direction, radians. @param facing  cosine of the angle to the ray.
    Parts<kParts> parts(const PairGraph& graph, const Neighbourhood& neighbourhood, const Eigen::Vector3d& normal,
                        double sigma, double facing, std::size_t eye, int line, int other) const;
    double density(const Parts<kParts>& parts) const { return mixture_(parts); }
    static double chance(double facing) { return facing / std::numbers::pi; }  ///< density of any marker

    /// Density of w of a marker that its own eye alone sees.
    double singleDensity(const PairGraph& graph, const Neighbourhood& neighbourhood, std::size_t eye, int line) const;
    /// The same for markers of any normal.
    static double broadDensity(const Sightline& line);

  private:
    bool hasLearnt_ = false;
    std::vector<int> kernels_;  ///< candidates
    Mixture<kParts> mixture_;
};

}  // namespace kestrune::matching
