// SPDX-License-Identifier: Apache-2.0
#include "matching/dual_prices.h"

#include <algorithm>
#include <functional>
#include <queue>

namespace kestrune::matching {

void DualPrices::augment(int start) {
    double& price = left_[static_cast<std::size_t>(start)];
    for (const int e : graph_.ofLeft[static_cast<std::size_t>(start)])
        price = std::max(price, graph_.edges[static_cast<std::size_t>(e)].logWeight -
                                    right_[static_cast<std::size_t>(graph_.edges[static_cast<std::size_t>(e)].right)]);
    const Path path = shortestPath(start);
    pay(start, path);
    exchange(start, path);
    for (const int right : path.reached) distance_[static_cast<std::size_t>(right)] = kFar;
}

/// Dijkstra over the lefts that would have to give way. It ends at a left that becomes single, or a right that is free.
DualPrices::Path DualPrices::shortestPath(int start) {
    std::priority_queue<std::pair<double, int>, std::vector<std::pair<double, int>>, std::greater<>> open;
    Path path{left_[static_cast<std::size_t>(start)], -1, start, {}, {}};
    const auto relax = [&](int left, double distance) {
        for (const int e : graph_.ofLeft[static_cast<std::size_t>(left)]) {
            const auto right = static_cast<std::size_t>(graph_.edges[static_cast<std::size_t>(e)].right);
            const double there = distance + std::max(0.0, behind(e));
            if (!(there < distance_[right])) continue;
            if (distance_[right] == kFar) path.reached.push_back(static_cast<int>(right));
            distance_[right] = there;
            from_[right] = e;
            open.push({there, static_cast<int>(right)});
        }
    };
    relax(start, 0);
    while (!open.empty()) {
        const auto [distance, right] = open.top();
        open.pop();
        const auto j = static_cast<std::size_t>(right);
        if (distance > distance_[j]) continue;
        if (distance >= path.length) break;
        if (edgeOfRight_[j] < 0) {  // free rights have the price 0, so that nothing beyond is nearer
            path.length = distance;
            path.right = right;
            path.single = -1;
            break;
        }
        path.settled.push_back(right);
        const int next = graph_.edges[static_cast<std::size_t>(edgeOfRight_[j])].left;
        const double single = distance + left_[static_cast<std::size_t>(next)];
        if (single < path.length) {
            path.length = single;
            path.single = next;
            path.right = right;
        }
        relax(next, distance);
    }
    return path;
}

/// All that was nearer than the end pays the difference.
void DualPrices::pay(int start, const Path& path) {
    left_[static_cast<std::size_t>(start)] -= path.length;
    for (const int right : path.settled) {
        const auto j = static_cast<std::size_t>(right);
        if (!(distance_[j] < path.length)) continue;
        const double off = path.length - distance_[j];
        right_[j] += off;
        left_[static_cast<std::size_t>(graph_.edges[static_cast<std::size_t>(edgeOfRight_[j])].left)] -= off;
    }
}

/// Each left on the path takes the next right.
void DualPrices::exchange(int start, const Path& path) {
    if (path.single >= 0 && path.single != start) edgeOfLeft_[static_cast<std::size_t>(path.single)] = -1;
    int right = path.right;
    while (right >= 0) {
        const int edge = from_[static_cast<std::size_t>(right)];
        const int left = graph_.edges[static_cast<std::size_t>(edge)].left;
        const int before = edgeOfLeft_[static_cast<std::size_t>(left)];
        edgeOfLeft_[static_cast<std::size_t>(left)] = edge;
        edgeOfRight_[static_cast<std::size_t>(right)] = edge;
        right = left == start ? -1 : graph_.edges[static_cast<std::size_t>(before)].right;
    }
}

}  // namespace kestrune::matching
