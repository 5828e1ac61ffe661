// SPDX-License-Identifier: Apache-2.0
//
// What the pairs of an exposure teach of one of their numbers, by kernels, and without what the markers at hand said.
#pragma once

#include <algorithm>
#include <array>
#include <utility>

#include "matching/kernel_grid.h"
#include "matching/pair_graph.h"

namespace kestrune::matching {

class LearntKernels {
  public:
    explicit LearntKernels(double CircleFit::*number) : number_(number) {}

    /// Forgets all, for kernels of other widths.
    void reset(KernelGrid grid) {
        grid_ = std::move(grid);
        total_ = 0;
    }

    /// Once after `reset`.
    void learn(const PairGraph& graph) {
        for (int c = 0; c < static_cast<int>(graph.candidates.size()); ++c) {
            if (graph.worth(c) < PairGraph::kLeastOwn) continue;
            grid_.add(graph.fit(c).*number_, graph.worth(c));
            total_ += graph.worth(c);
        }
        grid_.smooth();
    }

    const KernelGrid& grid() const { return grid_; }
    double total() const { return total_; }  ///< pairs that were learnt from

    /// Densities at a value by each kernel, from `parts[0]` on; as they are where too few pairs are left.
    void density(const PairGraph& graph, double value, std::size_t eye, int line, int other, double* parts) const {
        double total = total_;
        std::array<double, KernelGrid::kWidths> sums;
        for (std::size_t k = 0; k < sums.size(); ++k) sums[k] = grid_.value(k, value);
        graph.forOwn(eye, line, other, [&](int c) {
            total -= graph.worth(c);
            for (std::size_t k = 0; k < sums.size(); ++k)
                sums[k] -= graph.worth(c) * grid_.kernel(k, value - graph.fit(c).*number_);
        });
        if (total > kLeastTotal)
            for (std::size_t k = 0; k < sums.size(); ++k) parts[k] = std::max(sums[k], 0.0) / total;
    }

    /// Pairs that must be left when those at hand are taken out.
    static constexpr double kLeastTotal = 0.5;

  private:
    double CircleFit::*number_;
    KernelGrid grid_{0, 1, {1, 1, 1}};
    double total_ = 0;
};

}  // namespace kestrune::matching
