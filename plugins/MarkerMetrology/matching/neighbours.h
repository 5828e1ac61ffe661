// SPDX-License-Identifier: Apache-2.0
//
// The pairs that are believed, by their places on the image, and what those about a marker predict of its depth.
#pragma once

#include <array>
#include <vector>

#include "matching/pair_graph.h"

namespace kestrune::matching {

/// A pair that may predict others.
struct Anchor {
    int line, candidate;
    double u, v;  ///< tangents of the direction
    double logDepth, inverseDepth;
};

struct Neighbour {
    int candidate;
    double logDepth, inverseDepth;  ///< its own
    double tangent;                 ///< log depth at which the line of sight meets its plane
    double tangentSigma;
    double distance;  ///< on the image, as a tangent
    double u, v;      ///< place on the image from the line's, tangents
};

struct Prediction {
    static constexpr std::size_t kMost = 8;
    int count = 0;
    std::array<Neighbour, kMost> neighbours;
    /// Through all of them: log depth of the line, if there are enough, and how far neighbours are off it.
    bool hasPlane = false;
    double plane = 0, planeSigma = 0;

    /// Without one neighbour, or with all of them for -1. @param sigma  typical standard deviation of a log depth.
    void fitPlane(int without, double sigma);
};

class Neighbourhood {
  public:
    /// @param sigma  typical standard deviation of a log depth.
    void learn(const PairGraph& graph, double sigma);
    const std::vector<Anchor>& anchors(std::size_t eye) const { return anchors_[eye]; }
    const Prediction& of(std::size_t eye, int line) const { return predictions_[eye][static_cast<std::size_t>(line)]; }

  private:
    Prediction predict(const PairGraph& graph, std::size_t eye, int line, double sigma) const;

    std::array<std::vector<Anchor>, 2> anchors_;
    std::array<std::vector<Prediction>, 2> predictions_;
};

}  // namespace kestrune::matching
