// SPDX-License-Identifier: Apache-2.0
#include "MarkerExtractor/stereo/marker_edges.h"

#include <algorithm>
#include <cmath>

#include "MarkerExtractor/stereo/index.h"
#include "MarkerExtractor/stereo/nan_last.h"

namespace kestrune {

std::vector<MarkerEdge> buildEdges(const std::vector<const MarkerMatchRecord*>& active) {
    const auto n = static_cast<std::int32_t>(active.size());
    std::vector<MarkerEdge> edges;
    if (n > 1) edges.reserve(active.size() * (active.size() - 1) / 2);
    for (std::int32_t a = 0; a < n; ++a) {
        for (std::int32_t b = a + 1; b < n; ++b) {
            const MarkerMatchRecord *markerA = active[asIndex(a)], *markerB = active[asIndex(b)];
            const double dx = markerA->x - markerB->x, dy = markerA->y - markerB->y;
            const double length = std::sqrt(dx * dx + dy * dy);
            const double angle = dx >= 0 ? std::atan2(dy, dx) : std::atan2(-dy, -dx);
            const bool isAFirst = dx < 0;
            if (!isAFirst) std::swap(markerA, markerB);
            edges.push_back({isAFirst ? a : b, isAFirst ? b : a, markerA, markerB, length, angle});
        }
    }
    std::ranges::stable_sort(edges, AscendingNanLast(), &MarkerEdge::length);
    return edges;
}

}  // namespace kestrune
