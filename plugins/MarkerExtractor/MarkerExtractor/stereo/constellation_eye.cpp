// SPDX-License-Identifier: Apache-2.0
#include "MarkerExtractor/stereo/constellation_eye.h"

#include <cmath>

#include "MarkerExtractor/stereo/index.h"

namespace kestrune::constellation {

namespace {

/// Ends closer than this in x (or y) have no reliable order there: noise and disparity may turn it around.
constexpr double kShort = 2.0;
/// Least 1 - |cos| of an edge that does not run along the rows. Edges along the rows say nothing about the rows, and a
/// triangle needs at least one that does.
constexpr double kAlongRows = 0.003;

std::vector<EdgeShape> shapesOf(const std::vector<MarkerEdge>& edges) {
    std::vector<EdgeShape> shapes;
    shapes.reserve(edges.size());
    for (const MarkerEdge& edge : edges) {
        const double dx = edge.from->x - edge.to->x, dy = edge.from->y - edge.to->y;
        shapes.push_back({edge.first, edge.second, dy, edge.angle, std::abs(dx) < kShort, std::abs(dy) < kShort,
                          1 - std::abs(std::cos(edge.angle)) < kAlongRows});
    }
    return shapes;
}

}  // namespace

void Eye::activate(const std::vector<MarkerMatchRecord>& records) {
    for (std::size_t i = 0; i < records.size(); ++i) {
        if (records[i].matches.empty()) continue;
        active.push_back(&records[i]);
        original.push_back(static_cast<int>(i));
        centres.emplace_back(records[i].x, records[i].y);
    }
    edges = buildEdges(active);
    shapes = shapesOf(edges);
}

void Eye::linkCandidates(const Eye& other, std::size_t otherRecords) {
    const auto isFinite = [](cv::Point2d p) { return std::isfinite(p.x) && std::isfinite(p.y); };
    std::vector<int> compact(otherRecords, -1);
    for (std::size_t i = 0; i < other.centres.size(); ++i) {
        if (isFinite(other.centres[i])) compact[asIndex(other.original[i])] = static_cast<int>(i);
    }
    offsets_.assign(1, 0);
    for (std::size_t i = 0; i < active.size(); ++i) {
        for (const int match : active[i]->matches) {
            if (match < 0 || asIndex(match) >= otherRecords) continue;
            const int candidate = compact[asIndex(match)];
            if (candidate >= 0 && isFinite(centres[i])) candidates_.push_back(candidate);
        }
        offsets_.push_back(static_cast<int>(candidates_.size()));
    }
}

}  // namespace kestrune::constellation
