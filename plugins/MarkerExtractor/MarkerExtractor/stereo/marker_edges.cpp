// SPDX-License-Identifier: Apache-2.0
#include "MarkerExtractor/stereo/marker_edges.h"

#include <algorithm>
#include <cmath>

#include "MarkerExtractor/stereo/nan_last.h"

namespace kestrune {

std::vector<MarkerEdge> buildEdges(const std::vector<const MarkerMatchRecord*>& active) {
    const auto n = static_cast<std::int32_t>(active.size());
    std::vector<MarkerEdge> edges;
    if (n > 1) edges.reserve(static_cast<std::size_t>(n) * (n - 1) / 2);
    for (std::int32_t a = 0; a < n; ++a) {
        for (std::int32_t b = a + 1; b < n; ++b) {
            const double dx = active[a]->x - active[b]->x, dy = active[a]->y - active[b]->y;
            const double length = std::sqrt(dx * dx + dy * dy);
            const double angle = dx >= 0 ? std::atan2(dy, dx) : std::atan2(-dy, -dx);
            const bool isAFirst = dx < 0;
            const std::int32_t first = isAFirst ? a : b, second = isAFirst ? b : a;
            edges.push_back({first, second, active[first], active[second], length, angle});
        }
    }
    std::ranges::stable_sort(edges, AscendingNanLast(), &MarkerEdge::length);
    return edges;
}

}  // namespace kestrune
