// SPDX-License-Identifier: Apache-2.0
//
// What is left to do when the constellation as a whole gives no answer: drop the candidates that fit their nominal
// radius worst, and keep the pairs that are then the only ones of both their markers.
#include <algorithm>
#include <iterator>
#include <numeric>

#include "MarkerExtractor/stereo/rectified_match.h"
#include "parallel/parallel_loop.h"

namespace kestrune {

namespace {

/// Candidates of one nominal radius that may stay. With no more than these a record is not trimmed.
constexpr std::ptrdiff_t kKeptCandidates = 2;
/// Bound of the time that one candidate of a record takes to sort, ns.
constexpr std::int64_t kCandidateTime = 500;

/// Surplus candidates of one record: where they stand in its own lists, and the partners they stand for.
struct Surplus {
    std::vector<int> ownPositions;
    std::vector<int> partnerIds;
};

template <typename T>
void permute(std::vector<T>& list, const std::vector<std::size_t>& order) {
    std::vector<T> moved;
    moved.reserve(list.size());
    for (const std::size_t k : order) moved.push_back(list[k]);
    list.swap(moved);
}

void sortCandidatesByRadius(MarkerMatchRecord& record) {
    std::vector<std::size_t> order(record.matches.size());
    std::iota(order.begin(), order.end(), std::size_t{0});
    std::stable_sort(order.begin(), order.end(), [&record](std::size_t a, std::size_t b) {
        return ascendingNanLast(record.candidateRadii[a], record.candidateRadii[b]);
    });
    permute(record.matches, order);
    permute(record.candidates3d, order);
    permute(record.candidateRadii, order);
}

Surplus trimByRadius(MarkerMatchRecord& record, const std::vector<double>& nominalRadii, double tolerance) {
    Surplus surplus;
    if (record.matches.size() < 2) return surplus;
    sortCandidatesByRadius(record);
    surplus.ownPositions = surplusPositions(record.candidateRadii, nominalRadii, tolerance);
    for (const int position : surplus.ownPositions) {
        surplus.partnerIds.push_back(record.matches[static_cast<std::size_t>(position)]);
    }
    return surplus;
}

}  // namespace

std::size_t positionOf(const MarkerMatchRecord& record, int partner) {
    const auto found = std::find(record.matches.begin(), record.matches.end(), partner);
    return static_cast<std::size_t>(found - record.matches.begin());
}

std::vector<int> surplusPositions(const std::vector<double>& candidateRadii, const std::vector<double>& nominalRadii,
                                  double tolerance) {
    const auto firstFrom = [&candidateRadii](double radius) {
        return std::lower_bound(candidateRadii.begin(), candidateRadii.end(), radius) - candidateRadii.begin();
    };
    std::vector<int> marked;
    // Downwards, and below the nominal radius to the start of the list: what is smaller than the two that stay goes,
    // even if it lies outside the band.
    const auto markDown = [&marked](std::ptrdiff_t from, std::ptrdiff_t to) {
        for (std::ptrdiff_t k = from; k >= to; --k) marked.push_back(static_cast<int>(k));
    };
    const auto end = static_cast<std::ptrdiff_t>(candidateRadii.size());
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

void eraseCandidates(MarkerMatchRecord& record, std::vector<int> positions) {
    std::sort(positions.begin(), positions.end());
    std::vector<bool> erased(record.matches.size(), false);
    for (const int position : positions) {
        const auto k = static_cast<std::size_t>(position);
        if (k >= record.matches.size() || erased[k]) continue;
        record.candidateRadii.erase(std::next(record.candidateRadii.begin(), position));
        record.matches.erase(std::next(record.matches.begin(), position));
        record.candidates3d.erase(std::next(record.candidates3d.begin(), position));
        erased[k] = true;
    }
}

void trimCandidates(std::vector<MarkerMatchRecord>& leftRecords, std::vector<MarkerMatchRecord>& rightRecords,
                    const std::vector<double>& nominalRadii, double tolerance) {
    const std::size_t leftCount = leftRecords.size();
    const std::size_t count = leftCount + rightRecords.size();
    const auto record = [&](std::size_t k) -> MarkerMatchRecord& {
        return k < leftCount ? leftRecords[k] : rightRecords[k - leftCount];
    };
    std::vector<Surplus> surplus(count);
    const auto mostCandidates = static_cast<std::int64_t>(std::max(leftCount, rightRecords.size()));
    forEachInParallel(static_cast<int>(count), kCandidateTime * mostCandidates, [&](int k) {
        const auto index = static_cast<std::size_t>(k);
        surplus[index] = trimByRadius(record(index), nominalRadii, tolerance);
    });

    // A candidate goes on both sides. All positions are looked up before the first erasure moves any.
    for (std::size_t k = 0; k < count; ++k) {
        const bool isLeft = k < leftCount;
        const int self = static_cast<int>(isLeft ? k : k - leftCount);
        for (const int partnerId : surplus[k].partnerIds) {
            const std::size_t partner = static_cast<std::size_t>(partnerId) + (isLeft ? leftCount : 0);
            surplus[partner].ownPositions.push_back(static_cast<int>(positionOf(record(partner), self)));
        }
    }
    for (std::size_t k = 0; k < count; ++k) eraseCandidates(record(k), std::move(surplus[k].ownPositions));
}

std::vector<std::pair<int, int>> uniquePairs(const std::vector<MarkerMatchRecord>& leftRecords,
                                             const std::vector<MarkerMatchRecord>& rightRecords,
                                             std::vector<Point3_<double>>& points) {
    std::vector<std::pair<int, int>> pairs;
    for (std::size_t i = 0; i < leftRecords.size(); ++i) {
        const MarkerMatchRecord& left = leftRecords[i];
        if (left.matches.size() != 1) continue;
        const int j = left.matches.front();
        if (rightRecords[static_cast<std::size_t>(j)].matches.size() != 1) continue;
        pairs.emplace_back(static_cast<int>(i), j);
        points.push_back(left.candidates3d.front());
    }
    return pairs;
}

}  // namespace kestrune
