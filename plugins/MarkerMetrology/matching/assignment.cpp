// SPDX-License-Identifier: Apache-2.0
#include "matching/assignment.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <numeric>

#include "matching/dual_prices.h"

namespace kestrune::matching {
namespace {

constexpr int kMostSweeps = 50;
constexpr double kSettled = 1e-9;  // change of a message, relative
// An assignment that is behind by more than this, nats, is as good as impossible; where too many are nearer, by the
// second.
constexpr std::array<double, 2> kFarBehind = {24, 15};
// Beyond this a weight decides by itself, and its powers would leave double precision.
constexpr double kMostLogWeight = 200;
constexpr std::size_t kMostSets = 1000;  // of taken markers, that one step may have
constexpr int kMostOpen = 64;            // right markers that a set can tell apart

/// sums[k] = 1 + all values but the k-th, without the cancellation of a difference.
void sumsOfOthers(const std::vector<double>& values, std::vector<double>& sums) {
    const std::size_t n = values.size();
    sums.assign(n, 1.0);
    double before = 0, after = 0;
    for (std::size_t k = 0; k < n; ++k) {
        sums[k] += before;
        before += values[k];
    }
    for (std::size_t k = n; k-- > 0;) {
        sums[k] += after;
        after += values[k];
    }
}

/// Messages to the left marker of each edge: the chance that its right one is free for it.
void passMessages(const Graph& graph, const std::vector<double>& weight, std::vector<double>& toLeft) {
    std::vector<double> toRight(weight.size()), values, sums;
    toLeft.assign(weight.size(), 1.0);
    for (int sweep = 0; sweep < kMostSweeps; ++sweep) {
        for (const std::vector<int>& list : graph.ofLeft) {
            values.clear();
            for (const int e : list)
                values.push_back(weight[static_cast<std::size_t>(e)] * toLeft[static_cast<std::size_t>(e)]);
            sumsOfOthers(values, sums);
            for (std::size_t k = 0; k < list.size(); ++k)
                toRight[static_cast<std::size_t>(list[k])] = weight[static_cast<std::size_t>(list[k])] / sums[k];
        }
        double change = 0;
        for (const std::vector<int>& list : graph.ofRight) {
            values.clear();
            for (const int e : list) values.push_back(toRight[static_cast<std::size_t>(e)]);
            sumsOfOthers(values, sums);
            for (std::size_t k = 0; k < list.size(); ++k) {
                double& message = toLeft[static_cast<std::size_t>(list[k])];
                change = std::max(change, std::abs(1 / sums[k] - message) * sums[k]);
                message = 1 / sums[k];
            }
        }
        if (change < kSettled) break;
    }
}

/// The pieces of the graph, each a list of left markers in ascending order.
std::vector<std::vector<int>> piecesOf(const Graph& graph, const std::vector<char>& isCut) {
    const auto lefts = static_cast<int>(graph.ofLeft.size());
    std::vector<int> root(graph.ofLeft.size() + graph.ofRight.size());
    std::iota(root.begin(), root.end(), 0);
    const auto find = [&](int k) {
        while (root[static_cast<std::size_t>(k)] != k)
            k = root[static_cast<std::size_t>(k)] = root[static_cast<std::size_t>(root[static_cast<std::size_t>(k)])];
        return k;
    };
    for (std::size_t e = 0; e < graph.edges.size(); ++e) {
        if (isCut[e]) continue;
        const int a = find(graph.edges[e].left), b = find(lefts + graph.edges[e].right);
        root[static_cast<std::size_t>(std::max(a, b))] = std::min(a, b);
    }
    std::vector<std::vector<int>> pieces;
    std::vector<int> number(root.size(), -1);
    for (int i = 0; i < lefts; ++i) {
        int& n = number[static_cast<std::size_t>(find(i))];
        if (n < 0) {
            n = static_cast<int>(pieces.size());
            pieces.emplace_back();
        }
        pieces[static_cast<std::size_t>(n)].push_back(i);
    }
    return pieces;
}

/// A way from one set of taken markers to the next.
struct Way {
    int from, to, edge;  ///< edge -1: the left marker stays single
    double weight;
};

struct Layer {
    std::vector<std::uint64_t> sets;
    std::vector<double> behind;  ///< of each set what the best assignment that leads to it is behind by, nats
    std::vector<double> forward, backward;
    std::vector<Way> ways;  ///< into this layer
};

/// Where a layer holds each set.
class SetIndex {
  public:
    void clear(std::size_t most) {
        std::size_t size = 16;
        while (size < 2 * most) size *= 2;
        places_.assign(size, -1);
    }
    /// @returns the place of a set, which is added if it is new.
    int of(std::uint64_t set, std::vector<std::uint64_t>& sets) {
        const std::size_t mask = places_.size() - 1;
        std::size_t at = static_cast<std::size_t>((set * 0x9E3779B97F4A7C15u) >> 32) & mask;
        while (places_[at] >= 0 && sets[static_cast<std::size_t>(places_[at])] != set) at = (at + 1) & mask;
        if (places_[at] < 0) {
            places_[at] = static_cast<int>(sets.size());
            sets.push_back(set);
        }
        return places_[at];
    }

  private:
    std::vector<int> places_;
};

/// A piece, summed left by left, over the assignments that are not far behind.
class PieceSum {
  public:
    PieceSum(const Graph& graph, const DualPrices& prices, double farBehind, Effort effort,
             const std::vector<char>& isCut, const std::vector<int>& lefts)
        : graph_(graph),
          prices_(prices),
          farBehind_(farBehind),
          mostWays_(static_cast<std::size_t>(effort)),
          isCut_(isCut),
          lefts_(lefts) {}

    /// False where the sets are too many.
    bool run(Assignment& result) {
        if (lefts_.size() == 1) {
            sumOne(result);
            return true;
        }
        double total = 0;
        if (!forward(total)) return false;
        result.logSum += total;
        backward(result.probability);
        return true;
    }

  private:
    template <typename Body>
    void forEdges(std::size_t t, const Body& body) const {
        for (const int e : graph_.ofLeft[static_cast<std::size_t>(lefts_[t])])
            if (!isCut_[static_cast<std::size_t>(e)]) body(e, graph_.edges[static_cast<std::size_t>(e)]);
    }

    /// The largest weight of a marker, nats; 0 of being single.
    double scaleOf(std::size_t t) const {
        double scale = 0;
        forEdges(t, [&](int, const Edge& edge) { scale = std::max(scale, edge.logWeight); });
        return scale;
    }

    void sumOne(Assignment& result) const {
        const double scale = scaleOf(0);
        double sum = std::exp(-scale);
        forEdges(0, [&](int e, const Edge& edge) {
            sum += result.probability[static_cast<std::size_t>(e)] = std::exp(edge.logWeight - scale);
        });
        forEdges(0, [&](int e, const Edge&) { result.probability[static_cast<std::size_t>(e)] /= sum; });
        result.logSum += scale + std::log(sum);
    }

    /// Bit of each right marker while it is open, and the right markers that end with each left one.
    bool setBits() {
        bit_.assign(graph_.ofRight.size(), -1);
        std::vector<int> last(graph_.ofRight.size(), -1);
        for (std::size_t t = 0; t < lefts_.size(); ++t)
            forEdges(t,
                     [&](int, const Edge& edge) { last[static_cast<std::size_t>(edge.right)] = static_cast<int>(t); });
        std::uint64_t used = 0;
        ending_.assign(lefts_.size(), {});
        for (std::size_t t = 0; t < lefts_.size(); ++t) {
            bool fits = true;
            forEdges(t, [&](int, const Edge& edge) {
                int& bit = bit_[static_cast<std::size_t>(edge.right)];
                if (bit >= 0) return;
                int free = 0;
                while (free < kMostOpen && (used >> free & 1)) ++free;
                fits = fits && free < kMostOpen;
                if (free == kMostOpen) return;
                bit = free;
                used |= std::uint64_t{1} << free;
            });
            if (!fits) return false;
            forEdges(t, [&](int, const Edge& edge) {
                const auto right = static_cast<std::size_t>(edge.right);
                if (last[right] != static_cast<int>(t)) return;
                const std::uint64_t bit = std::uint64_t{1} << bit_[right];
                ending_[t].push_back({bit, prices_.ofRight(edge.right)});
                used &= ~bit;
            });
        }
        return true;
    }

    bool forward(double& logSum) {
        if (!setBits()) return false;
        double total = 0;
        layers_.resize(lefts_.size() + 1);
        layers_[0].sets = {0};
        layers_[0].forward = {1};
        layers_[0].behind = {0};
        for (std::size_t t = 0; t < lefts_.size(); ++t) {
            if (layers_[t].sets.size() * (graph_.ofLeft[static_cast<std::size_t>(lefts_[t])].size() + 1) > mostWays_)
                return false;
            const double scale = scaleOf(t);
            go(t, scale);
            Layer& next = layers_[t + 1];
            wayCount_ += next.ways.size();
            if (next.sets.size() > kMostSets || wayCount_ > mostWays_) return false;
            double sum = 0;
            for (const double f : next.forward) sum += f;
            for (double& f : next.forward) f /= sum;
            total += scale + std::log(sum);
        }
        logSum += total;
        return true;
    }

    /// All ways of one left marker. @param scale  what the weights of the step are divided by, as a logarithm.
    void go(std::size_t t, double scale) {
        const Layer& now = layers_[t];
        const int left = lefts_[t];
        index_.clear(now.sets.size() * (graph_.ofLeft[static_cast<std::size_t>(left)].size() + 1));
        for (std::size_t k = 0; k < now.sets.size(); ++k)
            arrive(t, k, -1, now.sets[k], now.behind[k] + prices_.ofLeft(left), std::exp(-scale));
        forEdges(t, [&](int e, const Edge& edge) {
            const std::uint64_t bit = std::uint64_t{1} << bit_[static_cast<std::size_t>(edge.right)];
            const double weight = std::exp(edge.logWeight - scale), less = std::max(0.0, prices_.behind(e));
            for (std::size_t k = 0; k < now.sets.size(); ++k)
                if (!(now.sets[k] & bit)) arrive(t, k, e, now.sets[k] | bit, now.behind[k] + less, weight);
        });
    }

    /// Right markers that end without being taken cost their prices.
    void arrive(std::size_t t, std::size_t from, int edge, std::uint64_t taken, double behind, double weight) {
        for (const Ending& ending : ending_[t]) {
            if (!(taken & ending.bit)) behind += ending.price;
            taken &= ~ending.bit;
        }
        if (behind > farBehind_) return;
        Layer& next = layers_[t + 1];
        const int to = index_.of(taken, next.sets);
        const auto k = static_cast<std::size_t>(to);
        if (k == next.forward.size()) {
            next.forward.push_back(0);
            next.behind.push_back(behind);
        }
        next.behind[k] = std::min(next.behind[k], behind);
        next.forward[k] += layers_[t].forward[from] * weight;
        next.ways.push_back({static_cast<int>(from), to, edge, weight});
    }

    void backward(std::vector<double>& probability) {
        layers_.back().backward.assign(layers_.back().sets.size(), 1.0);
        for (std::size_t t = lefts_.size(); t-- > 0;) {
            Layer& now = layers_[t];
            const Layer& next = layers_[t + 1];
            now.backward.assign(now.sets.size(), 0.0);
            double all = 0, sum = 0;
            for (const Way& way : next.ways) {
                const auto from = static_cast<std::size_t>(way.from);
                const double rest = way.weight * next.backward[static_cast<std::size_t>(way.to)];
                now.backward[from] += rest;
                all += now.forward[from] * rest;
            }
            for (const Way& way : next.ways) {
                if (way.edge < 0) continue;
                probability[static_cast<std::size_t>(way.edge)] +=
                    now.forward[static_cast<std::size_t>(way.from)] * way.weight *
                    next.backward[static_cast<std::size_t>(way.to)] / all;
            }
            for (const double b : now.backward) sum += b;
            for (double& b : now.backward) b /= sum;
        }
    }

    struct Ending {
        std::uint64_t bit;
        double price;
    };

    const Graph& graph_;
    const DualPrices& prices_;
    const double farBehind_;
    const std::size_t mostWays_;
    const std::vector<char>& isCut_;
    const std::vector<int>& lefts_;
    std::vector<int> bit_;
    std::vector<std::vector<Ending>> ending_;
    std::vector<Layer> layers_;
    SetIndex index_;
    std::size_t wayCount_ = 0;
};

/// A piece that is too large to be summed: probabilities by messages, the sum by Bethe's approximation.
void sumByMessages(const Graph& graph, const std::vector<int>& lefts, const std::vector<double>& weight,
                   const std::vector<double>& toLeft, Assignment& result) {
    double sum = 0;
    std::vector<char> isDone(graph.ofRight.size());
    for (const int i : lefts) {
        double all = 1;
        for (const int e : graph.ofLeft[static_cast<std::size_t>(i)])
            all += weight[static_cast<std::size_t>(e)] * toLeft[static_cast<std::size_t>(e)];
        sum += std::log(all);
        for (const int e : graph.ofLeft[static_cast<std::size_t>(i)]) {
            const auto k = static_cast<std::size_t>(e);
            result.probability[k] = weight[k] * toLeft[k] / all;
            result.isExact[k] = 0;
            // Of the edge, 1 + x y = 1 / (1 - p) with the messages x and y.
            sum += std::log1p(-std::min(result.probability[k], 1 - 1e-12));
            isDone[static_cast<std::size_t>(graph.edges[k].right)] = 1;
        }
    }
    for (std::size_t j = 0; j < isDone.size(); ++j) {
        if (!isDone[j]) continue;
        double single = 1;
        for (const int e : graph.ofRight[j]) single -= result.probability[static_cast<std::size_t>(e)];
        sum -= std::log(std::max(single, 1e-12));  // 1 + all x = 1 / (probability of being single)
    }
    result.logSum += sum;
}

}  // namespace

Assignment assign(const std::vector<Edge>& all, int leftCount, int rightCount, Effort effort) {
    std::vector<Edge> edges = all;
    for (Edge& edge : edges) edge.logWeight = std::min(edge.logWeight, kMostLogWeight);
    const Graph graph(edges, leftCount, rightCount);
    const DualPrices prices(graph);
    Assignment result;
    result.probability.assign(edges.size(), 0.0);
    result.chosen.assign(edges.size(), 0);
    result.isExact.assign(edges.size(), 1);
    for (int i = 0; i < leftCount; ++i)
        if (prices.edgeOfLeft(i) >= 0) result.chosen[static_cast<std::size_t>(prices.edgeOfLeft(i))] = 1;
    std::array<std::vector<char>, 2> isCut;
    for (std::size_t k = 0; k < 2; ++k)
        for (int e = 0; e < static_cast<int>(edges.size()); ++e) isCut[k].push_back(prices.behind(e) > kFarBehind[k]);

    std::vector<double> weight, toLeft;  // of messages, once they are needed
    for (const std::vector<int>& lefts : piecesOf(graph, isCut[0])) {
        if (PieceSum(graph, prices, kFarBehind[0], effort, isCut[0], lefts).run(result)) continue;
        if (PieceSum(graph, prices, kFarBehind[1], effort, isCut[1], lefts).run(result)) continue;
        if (toLeft.empty()) {
            for (const Edge& edge : edges) weight.push_back(std::exp(edge.logWeight));
            passMessages(graph, weight, toLeft);
        }
        sumByMessages(graph, lefts, weight, toLeft, result);
    }
    return result;
}

}  // namespace kestrune::matching
