// SPDX-License-Identifier: Apache-2.0
//
// The most probable one-to-one assignment and its dual prices, by shortest augmenting paths (Jonker and Volgenant).
// Prices are at or above 0, no edge is worth more than the prices of its markers, those of the assignment are worth
// just as much, and a single marker has the price 0. So an assignment with another edge is behind by what the edge
// lacks.
#pragma once

#include <limits>
#include <vector>

#include "matching/assignment.h"

namespace kestrune::matching {

/// Edges of each left and of each right marker.
struct Graph {
    const std::vector<Edge>& edges;
    std::vector<std::vector<int>> ofLeft, ofRight;

    Graph(const std::vector<Edge>& all, int leftCount, int rightCount)
        : edges(all), ofLeft(static_cast<std::size_t>(leftCount)), ofRight(static_cast<std::size_t>(rightCount)) {
        for (int e = 0; e < static_cast<int>(all.size()); ++e) {
            ofLeft[static_cast<std::size_t>(all[static_cast<std::size_t>(e)].left)].push_back(e);
            ofRight[static_cast<std::size_t>(all[static_cast<std::size_t>(e)].right)].push_back(e);
        }
    }
};

/// The most probable assignment, and by how much one with an edge is behind it at least.
class DualPrices {
  public:
    explicit DualPrices(const Graph& graph)
        : graph_(graph),
          left_(graph.ofLeft.size(), 0.0),
          right_(graph.ofRight.size(), 0.0),
          edgeOfLeft_(graph.ofLeft.size(), -1),
          edgeOfRight_(graph.ofRight.size(), -1),
          distance_(graph.ofRight.size(), kFar),
          from_(graph.ofRight.size(), -1) {
        for (int i = 0; i < static_cast<int>(left_.size()); ++i) augment(i);
    }

    int edgeOfLeft(int left) const { return edgeOfLeft_[static_cast<std::size_t>(left)]; }
    /// What an assignment is behind by where the marker is single, nats.
    double ofLeft(int left) const { return left_[static_cast<std::size_t>(left)]; }
    double ofRight(int right) const { return right_[static_cast<std::size_t>(right)]; }
    /// Nats, of an edge that is not in the assignment; 0 of one that is.
    double behind(int edge) const {
        const Edge& e = graph_.edges[static_cast<std::size_t>(edge)];
        return left_[static_cast<std::size_t>(e.left)] + right_[static_cast<std::size_t>(e.right)] - e.logWeight;
    }

  private:
    static constexpr double kFar = std::numeric_limits<double>::infinity();

    struct Path {
        double length;
        int right, single;  ///< where it ends: the last right (-1: none), and the left that becomes single (-1: none)
        std::vector<int> reached, settled;
    };
    void augment(int start);
    Path shortestPath(int start);
    void pay(int start, const Path& path);
    void exchange(int start, const Path& path);

    const Graph& graph_;
    std::vector<double> left_, right_;
    std::vector<int> edgeOfLeft_, edgeOfRight_;
    std::vector<double> distance_;
    std::vector<int> from_;
};

}  // namespace kestrune::matching
