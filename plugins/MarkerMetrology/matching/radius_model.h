// SPDX-License-Identifier: Apache-2.0
//
// Density of the logarithm of a marker's radius: nominal ones if there are some, and what the pairs of the exposure
// show.
#pragma once

#include <vector>

#include "matching/learnt_kernels.h"
#include "matching/mixture.h"
#include "matching/pair_graph.h"

namespace kestrune::matching {

/// What is known beforehand.
struct NominalRadii {
    std::vector<double> logarithms;
    double tolerance = 0;  ///< standard deviation of a logarithm
};

class RadiusModel {
  public:
    /// broad, nominal, kernels
    static constexpr std::size_t kNominal = 1, kLearnt = 2, kParts = kLearnt + KernelGrid::kWidths;

    RadiusModel(const PairGraph& graph, const NominalRadii& nominal);

    void learn(const PairGraph& graph);  ///< places of the pairs
    void learnShares(const PairGraph& graph);

    /// Without what the two markers said before; `other` may be -1.
    Parts<kParts> parts(const PairGraph& graph, double logRadius, std::size_t eye, int line, int other) const;
    double density(const Parts<kParts>& parts) const { return mixture_(parts); }
    /// By what is known beforehand alone, without what the exposure taught.
    double knownDensity(const Parts<kParts>& parts) const {
        return mixture_.share(kNominal) * parts[kNominal] + (1 - mixture_.share(kNominal)) * parts[0];
    }
    double chance() const { return 1 / (high_ - low_); }  ///< density of any marker

    /// At any radius of one marker, without what it said before; as long as the model learns no more.
    class AtMarker {
      public:
        AtMarker(const RadiusModel& model, const PairGraph& graph, std::size_t eye, int line);
        double operator()(double logRadius) const;

      private:
        struct Own {
            double logRadius, worth;
        };
        const RadiusModel& model_;
        std::vector<Own> own_;
        double perPair_ = 0;  ///< of what is learnt without the marker; 0 where that is nothing
        double broad_ = 0;
    };

  private:
    void setGrid();
    void mix();
    double learntShare() const;

    double low_ = 0, high_ = 1, sigma_ = 0.01;
    LearntKernels learnt_{&CircleFit::logRadius};
    std::vector<double> nominal_, mixed_;  ///< on the cells of the grid
    std::vector<double> mixedKernel_;      ///< of all widths by their shares, by cells from the centre
    const NominalRadii& known_;
    bool hasNominal_;
    Mixture<kParts> mixture_;
};

}  // namespace kestrune::matching
