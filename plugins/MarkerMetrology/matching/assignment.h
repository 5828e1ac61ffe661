// SPDX-License-Identifier: Apache-2.0
//
// One-to-one assignments between two lists, of which any marker may stay single. The probability of an assignment is
// proportional to the product of the weights of its edges; a single marker has weight 1. Marginals are sums over all
// assignments and no margins between two: where two markers can simply be exchanged, a margin is too sure.
//
// How: the most probable assignment and its dual prices (shortest augmenting paths) bound every other one: it is behind
// by at least the reduced costs of its edges. Edges that are behind by more than a decision could notice are cut. What
// is then left in one piece is summed, left by left, over the sets of right markers that are taken: few, since a set
// holds only those that later ones can still reach, and ways whose costs add up to as much are left out. A piece with
// too many sets is summed by message passing (the fixed point of the Bethe free energy, which such models reach), and
// its edges are told not to be exact: messages are too sure where markers can be exchanged.
#pragma once

#include <cstddef>
#include <vector>

namespace kestrune::matching {

struct Edge {
    int left, right;
    double logWeight;  ///< against both markers single, nats
};

struct Assignment {
    std::vector<double> probability;  ///< of each edge
    std::vector<char> chosen;         ///< whether it is in the most probable assignment
    double logSum = 0;                ///< log of the sum of all assignments' weights
    std::vector<char> isExact;        ///< of each edge: false in a piece that was too large to be summed
};

/// Ways between sets of taken markers in one piece, at most: bounds time and memory, 5 ms and 3 MB for `all`. Messages
/// will do where a sum is only learnt from.
enum class Effort : std::size_t { little = 5'000, all = 60'000 };

/// @param edges  in ascending order of left, then right; their order decides ties of assignments.
Assignment assign(const std::vector<Edge>& edges, int leftCount, int rightCount, Effort effort = Effort::all);

}  // namespace kestrune::matching
