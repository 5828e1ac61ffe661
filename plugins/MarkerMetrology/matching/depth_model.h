// SPDX-License-Identifier: Apache-2.0
//
// Density of the logarithm of a marker's depth: what depths the other pairs of the exposure have, and what its
// neighbours on the image predict. Neighbours are evidence and no gate: a broad part stays.
#pragma once

#include "matching/learnt_kernels.h"
#include "matching/mixture.h"
#include "matching/neighbours.h"
#include "matching/radius_model.h"

namespace kestrune::matching {

class DepthModel {
  public:
    /// broad, kernels, plane of the neighbours (2 widths), their own planes (2), their depths (2)
    static constexpr std::size_t kParts = 1 + KernelGrid::kWidths + 6;

    /// Depths that a rig may be meant for, in baselines; and the logarithm of their ratio.
    static constexpr double kNearest = 0.3, kFarthest = 100, kWidestRange = 5.81;

    DepthModel(const PairGraph& graph, double baseline);

    void setSigma(const PairGraph& graph);  ///< before the neighbourhood learns
    void learn(const PairGraph& graph);
    void learnShares(const PairGraph& graph, const Neighbourhood& neighbourhood);

    Parts<kParts> parts(const PairGraph& graph, const Neighbourhood& neighbourhood, double logDepth, std::size_t eye,
                        int line, int other) const;
    double density(const Parts<kParts>& parts) const { return mixture_(parts); }
    double chance() const { return 1 / (high_ - low_); }  ///< density of any marker

    /// Density of log rho of a marker that its own eye alone sees: that of its radius, over all depths.
    double singleDensity(const PairGraph& graph, const Neighbourhood& neighbourhood, const RadiusModel& radii,
                         std::size_t eye, int line) const;
    double typicalSigma() const { return sigma_; }

  private:
    void setNear(const PairGraph& graph, const Prediction& prediction, double logDepth, std::size_t otherEye, int other,
                 Parts<kParts>& parts) const;

    double low_ = 0, high_ = 1, sigma_ = 0.01;
    LearntKernels learnt_{&CircleFit::logDepth};
    Mixture<kParts> mixture_;
};

}  // namespace kestrune::matching
