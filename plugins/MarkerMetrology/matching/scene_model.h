// SPDX-License-Identifier: Apache-2.0
//
// What an exposure teaches about its own markers: which radii, depths and normals there are, and what lies beside what.
// Densities are mixtures: a broad part, kernels at what the other pairs show, kernels at what the neighbours in the
// image predict. How much of each is right is learnt as well. A pair is always judged without what its own two markers
// said before: otherwise it would confirm itself.
//
// What a pair gains from such a density a single marker must pay, or else all that is usual would look like a pair:
// the density of a single marker is that of the same scene seen by one eye, integrated over its unknown depth, or that
// of a false marker of any shape.
#pragma once

#include <vector>

#include "matching/depth_model.h"
#include "matching/normal_model.h"
#include "matching/radius_model.h"

namespace kestrune::matching {

/// Logarithms of densities at a pair: of log depth, log radius, and the normal by solid angle.
struct PairDensity {
    double depth = 0, radius = 0, normal = 0;
    double knownRadius = 0;  ///< of log radius by nominal ones alone
    double sum() const { return depth + radius + normal; }
};

class SceneModel {
  public:
    SceneModel(const Views& views, const std::vector<Candidate>& candidates, const NominalRadii& nominal,
               double baseline);

    /// Learns from what the candidates are worth now. @param probability  of each.
    /// @param ends         of each, the fit that counts; none: the first.
    void learn(const std::vector<double>& probability, const std::vector<int>& ends = {});

    PairDensity pairDensity(int candidate, const CircleFit& fit) const;
    /// The same for markers of any depth, radius and normal.
    PairDensity chanceDensity(const CircleFit& fit) const;

    /// Log density of (log rho, w) of a marker that is seen by its own eye alone.
    double singleDensity(std::size_t eye, int line) const;

  private:
    PairGraph graph_;
    Neighbourhood neighbourhood_;
    RadiusModel radii_;
    DepthModel depths_;
    NormalModel normals_;
};

}  // namespace kestrune::matching
