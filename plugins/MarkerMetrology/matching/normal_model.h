// SPDX-License-Identifier: Apache-2.0
//
// Density of a marker's normal, by solid angle: what normals the other pairs of the exposure have, and its neighbours.
#pragma once

#include <array>
#include <numbers>

#include "matching/mixture.h"
#include "matching/neighbours.h"

namespace kestrune::matching {

/// Normals of pairs that predict others, number by number, for loops over all of them at once.
template <std::size_t N>
struct NormalKernels {
    std::size_t count = 0;
    std::array<double, N> x, y, z, variance;
    std::array<std::array<int, N>, 2> line;

    void add(const PairGraph& graph, int candidate);
};

class NormalModel {
  public:
    static constexpr std::size_t kWidths = 3;
    /// broad, all pairs' kernels, neighbours' kernels
    static constexpr std::size_t kParts = 1 + 2 * kWidths;

    NormalModel();

    void learn(const PairGraph& graph, const Neighbourhood& neighbourhood);
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
    static constexpr std::size_t kMostKernels = 48;  ///< of all pairs

    bool hasLearnt_ = false;
    NormalKernels<kMostKernels> kernels_;
    Mixture<kParts> mixture_;
};

}  // namespace kestrune::matching
