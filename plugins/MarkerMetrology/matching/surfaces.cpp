// SPDX-License-Identifier: Apache-2.0
#include "matching/surfaces.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
#include <numeric>
#include <utility>

namespace kestrune::matching {
namespace {

// A size is usual if this share of the pairs elsewhere has it, to a share of the radius or so many sigmas.
constexpr double kUsualSize = 0.1, kSameSize = 0.03, kSameSizeSigmas = 3;
// Of so many neighbours on the image so many must have a pair's depth, on surfaces of up to this slope.
constexpr std::size_t kSurfaceNeighbours = 6;
constexpr int kLeastAgreeing = 2;
constexpr double kSurfaceSlope = 0.8, kSameDepthSigmas = 3;
constexpr double kLargest = 0.5;       // share of all pairs
constexpr double kLeastNominal = 0.2;  // where fewer have a radius that is known beforehand, others were told
constexpr double kMostAreUsual = 0.5;  // so many have a size that is usual, or sizes tell nothing

double squared(double x) {
    return x * x;
}

bool hasSameSize(const SeenPair& a, const SeenPair& b) {
    const double variance = squared(a.sigmaRadius) + squared(b.sigmaRadius);
    return squared(a.logRadius - b.logRadius) < std::max(squared(kSameSizeSigmas) * variance, squared(kSameSize));
}

bool sharesMarker(const SeenPair& a, const SeenPair& b) {
    return a.left == b.left || a.right == b.right;
}

}  // namespace

Surfaces::Surfaces(std::vector<SeenPair> believed)
    : believed_(std::move(believed)), surface_(believed_.size()), size_(believed_.size(), 0) {
    const auto nominal =
        std::count_if(believed_.begin(), believed_.end(), [](const SeenPair& pair) { return pair.isNominal; });
    hasNominalSizes_ =
        nominal > 0 && static_cast<double>(nominal) >= kLeastNominal * static_cast<double>(believed_.size());
    joinNeighbours();
    if (hasNominalSizes_) return;  // they decide
    const auto usual = std::count_if(believed_.begin(), believed_.end(),
                                     [this](const SeenPair& pair) { return isUsualBeside(-1, pair); });
    hasUsualSizes_ = static_cast<double>(usual) >= kMostAreUsual * static_cast<double>(believed_.size());
}

/// Pairs that lie beside each other are on one surface.
void Surfaces::joinNeighbours() {
    std::iota(surface_.begin(), surface_.end(), 0);
    const auto find = [&](int k) {
        while (surface_[static_cast<std::size_t>(k)] != k) k = surface_[static_cast<std::size_t>(k)];
        return k;
    };
    for (int i = 0; i < static_cast<int>(believed_.size()); ++i) {
        for (const int k : agreeingWith(believed_[static_cast<std::size_t>(i)])) {
            const int a = find(i), b = find(k);
            surface_[static_cast<std::size_t>(std::max(a, b))] = std::min(a, b);
        }
    }
    for (int i = 0; i < static_cast<int>(surface_.size()); ++i) {
        surface_[static_cast<std::size_t>(i)] = find(i);
        ++size_[static_cast<std::size_t>(find(i))];
    }
}

/// Of a pair's neighbours on the image those that may lie beside it on one surface.
std::vector<int> Surfaces::agreeingWith(const SeenPair& pair) const {
    std::array<std::pair<double, int>, kSurfaceNeighbours> nearest;
    nearest.fill({std::numeric_limits<double>::infinity(), -1});
    for (int k = 0; k < static_cast<int>(believed_.size()); ++k) {
        const SeenPair& other = believed_[static_cast<std::size_t>(k)];
        if (sharesMarker(pair, other)) continue;
        const double distance2 = squared(pair.u - other.u) + squared(pair.v - other.v);
        if (!(distance2 < nearest.back().first)) continue;
        std::size_t place = nearest.size() - 1;
        for (; place > 0 && distance2 < nearest[place - 1].first; --place) nearest[place] = nearest[place - 1];
        nearest[place] = {distance2, k};
    }
    std::vector<int> agreeing;
    for (const auto& [distance2, k] : nearest) {
        if (k < 0) break;
        const SeenPair& other = believed_[static_cast<std::size_t>(k)];
        const double sigma = std::sqrt(squared(pair.sigmaDepth) + squared(other.sigmaDepth));
        const double reach = kSurfaceSlope * std::sqrt(distance2) + kSameDepthSigmas * sigma;
        if (std::abs(pair.logDepth - other.logDepth) < reach) agreeing.push_back(k);
    }
    return agreeing;
}

/// The largest of those that its neighbours stand on; -1 for none.
int Surfaces::surfaceOf(const std::vector<int>& agreeing) const {
    if (static_cast<int>(agreeing.size()) < kLeastAgreeing) return -1;
    int best = -1;
    for (const int k : agreeing) {
        const int surface = surface_[static_cast<std::size_t>(k)];
        if (best < 0 || size_[static_cast<std::size_t>(surface)] > size_[static_cast<std::size_t>(best)])
            best = surface;
    }
    return best;
}

/// Whether it is among the sizes of the pairs that do not stand on a surface.
bool Surfaces::isUsualBeside(int surface, const SeenPair& pair) const {
    int alike = 0, others = 0;
    for (std::size_t k = 0; k < believed_.size(); ++k) {
        if (surface_[k] == surface || sharesMarker(pair, believed_[k])) continue;
        ++others;
        if (hasSameSize(pair, believed_[k])) ++alike;
    }
    return alike >= kUsualSize * others;
}

bool Surfaces::bearOut(const SeenPair& pair) const {
    if (hasNominalSizes_) return pair.isNominal;
    const std::vector<int> agreeing = agreeingWith(pair);
    const int own = surfaceOf(agreeing);
    if (own >= 0 && size_[static_cast<std::size_t>(own)] >= kLargest * static_cast<double>(believed_.size()))
        return true;
    if (isUsualBeside(own, pair)) return true;
    if (hasUsualSizes_) return false;
    return std::count_if(agreeing.begin(), agreeing.end(), [&](int k) {
               return !hasSameSize(pair, believed_[static_cast<std::size_t>(k)]);
           }) >= kLeastAgreeing;
}

}  // namespace kestrune::matching
