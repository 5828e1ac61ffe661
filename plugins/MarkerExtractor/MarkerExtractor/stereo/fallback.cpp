// SPDX-License-Identifier: Apache-2.0
#include "MarkerExtractor/stereo/fallback.h"

#include <algorithm>
#include <cstdint>

#include "MarkerExtractor/stereo/nan_last.h"
#include "parallel/parallel_loop.h"

namespace kestrune {

namespace {

/// Candidates of one nominal radius that may stay. With no more than these a marker is not trimmed.
constexpr std::ptrdiff_t kKeptCandidates = 2;
/// Bound of the time that one candidate of a marker takes to sort, ns.
constexpr std::int64_t kCandidateTime = 500;

/// Surplus candidates of one marker: where they stand in its own list, and the partners they stand for.
struct Surplus {
    std::vector<int> ownPositions;
    std::vector<int> partners;
};

Surplus findSurplus(RectifiedMarker& marker, const std::vector<double>& nominalRadii, double tolerance) {
    Surplus surplus;
    if (marker.candidates.size() < 2) return surplus;
    std::ranges::stable_sort(marker.candidates, AscendingNanLast(), &PairCandidate::radius);
    surplus.ownPositions = surplusPositions(marker.candidates, nominalRadii, tolerance);
    for (const int position : surplus.ownPositions) {
        surplus.partners.push_back(marker.candidates[static_cast<std::size_t>(position)].partner);
    }
    return surplus;
}

}  // namespace

std::vector<int> surplusPositions(const std::vector<PairCandidate>& candidates, const std::vector<double>& nominalRadii,
                                  double tolerance) {
    const auto firstFrom = [&candidates](double radius) {
        return std::ranges::lower_bound(candidates, radius, {}, &PairCandidate::radius) - candidates.begin();
    };
    std::vector<int> marked;
    // Downwards, and below the nominal radius to the start of the list: what is smaller than the two that stay goes,
    // even if it lies outside the band.
    const auto markDown = [&marked](std::ptrdiff_t from, std::ptrdiff_t to) {
        for (std::ptrdiff_t k = from; k >= to; --k) marked.push_back(static_cast<int>(k));
    };
    const auto end = static_cast<std::ptrdiff_t>(candidates.size());
    for (const double nominal : nominalRadii) {
        const std::ptrdiff_t lo = firstFrom(nominal - tolerance);
        const std::ptrdiff_t hi = firstFrom(nominal + tolerance);
        const std::ptrdiff_t mid = firstFrom(nominal);
        if (hi - lo > kKeptCandidates) {
            if (mid == lo) {
                markDown(hi - 1, lo + kKeptCandidates);
            } else if (mid == hi) {
                markDown(hi - 1 - kKeptCandidates, 0);
            } else {
                markDown(hi - 1, mid + 1);
                markDown(mid - 2, 0);
            }
        }
        if (hi == end) break;
    }
    return marked;
}

void eraseCandidates(std::vector<PairCandidate>& candidates, std::vector<int> positions) {
    std::ranges::sort(positions);
    std::vector<bool> erased(candidates.size(), false);
    for (const int position : positions) {
        const auto k = static_cast<std::size_t>(position);
        if (k >= candidates.size() || erased[k]) continue;
        candidates.erase(candidates.begin() + position);
        erased[k] = true;
    }
}

void trimCandidates(std::vector<RectifiedMarker>& leftMarkers, std::vector<RectifiedMarker>& rightMarkers,
                    const std::vector<double>& nominalRadii, double tolerance) {
    const std::size_t leftCount = leftMarkers.size();
    const std::size_t count = leftCount + rightMarkers.size();
    const auto marker = [&](std::size_t k) -> RectifiedMarker& {
        return k < leftCount ? leftMarkers[k] : rightMarkers[k - leftCount];
    };
    std::vector<Surplus> surplus(count);
    const auto mostCandidates = static_cast<std::int64_t>(std::max(leftCount, rightMarkers.size()));
    forEachInParallel(static_cast<int>(count), kCandidateTime * mostCandidates, [&](int k) {
        const auto index = static_cast<std::size_t>(k);
        surplus[index] = findSurplus(marker(index), nominalRadii, tolerance);
    });

    // A candidate goes on both sides. All positions are looked up before the first erasure moves any.
    for (std::size_t k = 0; k < count; ++k) {
        const bool isLeft = k < leftCount;
        const int self = static_cast<int>(isLeft ? k : k - leftCount);
        for (const int partner : surplus[k].partners) {
            const std::size_t other = static_cast<std::size_t>(partner) + (isLeft ? leftCount : 0);
            surplus[other].ownPositions.push_back(static_cast<int>(positionOf(marker(other), self)));
        }
    }
    for (std::size_t k = 0; k < count; ++k) eraseCandidates(marker(k).candidates, std::move(surplus[k].ownPositions));
}

std::vector<PlacedPair> uniquePairs(const std::vector<RectifiedMarker>& leftMarkers,
                                    const std::vector<RectifiedMarker>& rightMarkers) {
    std::vector<PlacedPair> pairs;
    for (std::size_t i = 0; i < leftMarkers.size(); ++i) {
        if (leftMarkers[i].candidates.size() != 1) continue;
        const PairCandidate& candidate = leftMarkers[i].candidates.front();
        if (rightMarkers[static_cast<std::size_t>(candidate.partner)].candidates.size() != 1) continue;
        pairs.push_back({static_cast<int>(i), candidate.partner, candidate.point});
    }
    return pairs;
}

}  // namespace kestrune
