// SPDX-License-Identifier: Apache-2.0
#include "matching/dual_prices.h"

#include <algorithm>
#include <functional>
#include <queue>

namespace kestrune::matching {

/// Dijkstra over the lefts that would have to give way.
void DualPrices::augment(int start) {
    double& price = left_[static_cast<std::size_t>(start)];
    for (const int e : graph_.ofLeft[static_cast<std::size_t>(start)])
        price = std::max(price, graph_.edges[static_cast<std::size_t>(e)].logWeight -
                                    right_[static_cast<std::size_t>(graph_.edges[static_cast<std::size_t>(e)].right)]);
    std::priority_queue<std::pair<double, int>, std::vector<std::pair<double, int>>, std::greater<>> open;
    std::vector<int> reached, settled;
    const auto relax = [&](int left, double distance) {
        for (const int e : graph_.ofLeft[static_cast<std::size_t>(left)]) {
            const auto right = static_cast<std::size_t>(graph_.edges[static_cast<std::size_t>(e)].right);
            const double there = distance + std::max(0.0, behind(e));
            if (!(there < distance_[right])) continue;
            if (distance_[right] == kFar) reached.push_back(static_cast<int>(right));
            distance_[right] = there;
            from_[right] = e;
            open.push({there, static_cast<int>(right)});
        }
    };
    // The end: a left that becomes single, or a right that is free.
    double best = price;
    int end = -1, last = start;
    relax(start, 0);
    while (!open.empty()) {
        const auto [distance, right] = open.top();
        open.pop();
        const auto j = static_cast<std::size_t>(right);
        if (distance > distance_[j]) continue;
        if (distance >= best) break;
        if (edgeOfRight_[j] < 0) {
            // Free rights have the price 0, so that nothing beyond is nearer.
            best = distance;
            end = right;
            last = -1;
            break;
        }
        settled.push_back(right);
        const int next = graph_.edges[static_cast<std::size_t>(edgeOfRight_[j])].left;
        const double single = distance + left_[static_cast<std::size_t>(next)];
        if (single < best) {
            best = single;
            last = next;
            end = right;
        }
        relax(next, distance);
    }
    // All that was nearer than the end pays the difference.
    left_[static_cast<std::size_t>(start)] -= best;
    for (const int right : settled) {
        const auto j = static_cast<std::size_t>(right);
        if (!(distance_[j] < best)) continue;
        const double off = best - distance_[j];
        right_[j] += off;
        left_[static_cast<std::size_t>(graph_.edges[static_cast<std::size_t>(edgeOfRight_[j])].left)] -= off;
    }
    if (last >= 0 && last != start) edgeOfLeft_[static_cast<std::size_t>(last)] = -1;
    while (end >= 0) {
        const int edge = from_[static_cast<std::size_t>(end)];
        const int left = graph_.edges[static_cast<std::size_t>(edge)].left;
        const int before = edgeOfLeft_[static_cast<std::size_t>(left)];
        edgeOfLeft_[static_cast<std::size_t>(left)] = edge;
        edgeOfRight_[static_cast<std::size_t>(end)] = edge;
        end = left == start ? -1 : graph_.edges[static_cast<std::size_t>(before)].right;
    }
    for (const int right : reached) distance_[static_cast<std::size_t>(right)] = kFar;
}

}  // namespace kestrune::matching
