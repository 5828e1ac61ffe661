// SPDX-License-Identifier: Apache-2.0
#include "matching/rival_growth.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "matching/spread.h"

namespace kestrune::matching {
namespace {

constexpr int kSeeds = 4;
// How far a depth may go off its neighbours', as a share of the distance on the image: a slope of 60 degrees.
constexpr double kMostSlope = 1.7;
constexpr double kSigmas = 4;
constexpr std::size_t kNeighbours = 4;
// Two assignments that share this much of the smaller one are one.
constexpr double kAlike = 0.5;

struct Place {
    double u, v;
};

class Growth {
  public:
    Growth(const Views& views, const std::vector<Candidate>& candidates, const std::vector<double>& worth, double least)
        : candidates_(candidates), own_(views.lines[0].size()), rights_(views.lines[1].size()) {
        for (const Sightline& line : views.lines[0])
            places_.push_back({line.axis.x() / line.axis.z(), line.axis.y() / line.axis.z()});
        for (int c = 0; c < static_cast<int>(candidates.size()); ++c)
            if (worth[static_cast<std::size_t>(c)] >= least)
                own_[static_cast<std::size_t>(candidates[static_cast<std::size_t>(c)].left)].push_back(c);
    }

    /// Markers with candidates, from the middle of the image outwards.
    std::vector<int> seeds() const {
        if (places_.empty()) return {};
        std::vector<double> us, vs;
        for (const Place& p : places_) us.push_back(p.u), vs.push_back(p.v);
        const Place centre{medianOf(us, 0), medianOf(vs, 0)};
        std::vector<std::pair<double, int>> order;
        for (std::size_t i = 0; i < places_.size(); ++i)
            if (!own_[i].empty()) order.push_back({distance2(places_[i], centre), static_cast<int>(i)});
        std::sort(order.begin(), order.end());
        std::vector<int> result;
        for (std::size_t k = 0; k < order.size() && static_cast<int>(result.size()) < kSeeds; ++k)
            result.push_back(order[k].second);
        return result;
    }

    const std::vector<int>& own(int line) const { return own_[static_cast<std::size_t>(line)]; }

    std::vector<int> from(int seed) const {
        std::vector<int> partner(own_.size(), -1);
        std::vector<char> isTaken(rights_), isSettled(own_.size());
        std::vector<double> nearest(own_.size(), std::numeric_limits<double>::infinity());
        std::vector<int> taken;
        const auto take = [&](int c) {
            const Candidate& candidate = candidates_[static_cast<std::size_t>(c)];
            const auto left = static_cast<std::size_t>(candidate.left);
            partner[left] = c;
            isTaken[static_cast<std::size_t>(candidate.right)] = 1;
            taken.push_back(c);
            for (std::size_t i = 0; i < own_.size(); ++i)
                nearest[i] = std::min(nearest[i], distance2(places_[i], places_[left]));
        };
        isSettled[static_cast<std::size_t>(candidates_[static_cast<std::size_t>(seed)].left)] = 1;
        take(seed);
        while (true) {
            int next = -1;
            for (int i = 0; i < static_cast<int>(own_.size()); ++i) {
                const auto k = static_cast<std::size_t>(i);
                if (isSettled[k] || own_[k].empty()) continue;
                if (next < 0 || nearest[k] < nearest[static_cast<std::size_t>(next)]) next = i;
            }
            if (next < 0) break;
            isSettled[static_cast<std::size_t>(next)] = 1;
            const int c = continuing(next, partner, isTaken);
            if (c >= 0) take(c);
        }
        return taken;
    }

  private:
    static double distance2(const Place& a, const Place& b) {
        return (a.u - b.u) * (a.u - b.u) + (a.v - b.v) * (a.v - b.v);
    }
    double depthOf(int c) const { return candidates_[static_cast<std::size_t>(c)].agreement.fits[0].logDepth; }

    /// The free candidate of a marker whose depth is nearest to what its matched neighbours have; -1 if none is near.
    int continuing(int line, const std::vector<int>& partner, const std::vector<char>& isTaken) const {
        std::array<std::pair<double, int>, kNeighbours> near;
        near.fill({std::numeric_limits<double>::infinity(), -1});
        for (std::size_t i = 0; i < partner.size(); ++i) {
            if (partner[i] < 0) continue;
            const std::pair<double, int> item{distance2(places_[i], places_[static_cast<std::size_t>(line)]),
                                              partner[i]};
            if (item < near.back()) {
                near.back() = item;
                std::sort(near.begin(), near.end());
            }
        }
        int best = -1;
        double least = std::numeric_limits<double>::infinity();
        for (const int c : own_[static_cast<std::size_t>(line)]) {
            const Candidate& candidate = candidates_[static_cast<std::size_t>(c)];
            if (isTaken[static_cast<std::size_t>(candidate.right)]) continue;
            double off = std::numeric_limits<double>::infinity();
            for (const auto& [distance, other] : near) {
                if (other < 0) continue;
                const double reach =
                    kMostSlope * std::sqrt(distance) + kSigmas * candidate.agreement.fits[0].sigmaDepth;
                off = std::min(off, std::abs(depthOf(c) - depthOf(other)) / reach);
            }
            if (off < least) {
                least = off;
                best = c;
            }
        }
        return least <= 1 ? best : -1;
    }

    const std::vector<Candidate>& candidates_;
    std::vector<std::vector<int>> own_;
    std::size_t rights_;
    std::vector<Place> places_;
};

}  // namespace

std::vector<std::vector<int>> grownAssignments(const Views& views, const std::vector<Candidate>& candidates,
                                               const std::vector<double>& worth, double least, int most) {
    const Growth growth(views, candidates, worth, least);
    std::vector<std::pair<double, std::vector<int>>> grown;
    for (const int seed : growth.seeds()) {
        for (const int c : growth.own(seed)) {
            bool isKnown = false;  // an earlier one went through this pair
            for (const auto& [sum, list] : grown)
                isKnown = isKnown || std::find(list.begin(), list.end(), c) != list.end();
            if (isKnown) continue;
            std::vector<int> list = growth.from(c);
            double sum = 0;
            for (const int k : list) sum += worth[static_cast<std::size_t>(k)];
            std::sort(list.begin(), list.end());
            grown.push_back({sum, std::move(list)});
        }
    }
    std::stable_sort(grown.begin(), grown.end(), [](const auto& a, const auto& b) { return a.first > b.first; });
    std::vector<std::vector<int>> result;
    for (auto& item : grown) {
        std::vector<int>& list = item.second;
        const auto isAlike = [&](const std::vector<int>& other) {
            std::vector<int> both;
            std::set_intersection(list.begin(), list.end(), other.begin(), other.end(), std::back_inserter(both));
            return static_cast<double>(both.size()) >=
                   kAlike * static_cast<double>(std::min(list.size(), other.size()));
        };
        if (std::any_of(result.begin(), result.end(), isAlike)) continue;
        result.push_back(std::move(list));
        if (static_cast<int>(result.size()) == most) break;
    }
    return result;
}

}  // namespace kestrune::matching
