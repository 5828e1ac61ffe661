// SPDX-License-Identifier: Apache-2.0
#include "refinement/exposure_fit.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <iterator>

#include "parallel/parallel_loop.h"

namespace kestrune::refinement {

using geometry::SmoothEllipse;

namespace {

constexpr double kLeastRecord = 1;  // px
// Rims farther apart than this, px, and a share of the marker's size have nothing to do with each other: the ground
// that is looked at, and two blurs.
constexpr double kLeastFar = 24, kFarShare = 0.5;
// Markers in each other's blur are fitted in turns until none moves by this any more, px.
constexpr double kMove = 0.001;
constexpr int kMostPasses = 6;
constexpr std::int64_t kMostPerMarker = 20'000'000;  // ns

double farOf(double size) {
    return kLeastFar + kFarShare * size;
}

/// Half of the ellipse's extent along a direction.
double support(const SmoothEllipse& e, double nx, double ny) {
    return std::hypot((e.s + e.e1) * nx + e.e2 * ny, e.e2 * nx + (e.s - e.e1) * ny);
}

/// Distance of the rims, at least; 0 where they cross.
double gapOf(const SmoothEllipse& a, const SmoothEllipse& b) {
    const double dx = b.x - a.x, dy = b.y - a.y, apart = std::hypot(dx, dy);
    if (surrounds(a, b) || surrounds(b, a))
        return std::max(0.0, (a.s > b.s ? a : b).minorHalfAxis() - (a.s > b.s ? b : a).majorHalfAxis() - apart);
    if (!(apart > 0)) return 0;
    return std::max(0.0, apart - support(a, dx / apart, dy / apart) - support(b, dx / apart, dy / apart));
}

class ExposureFit {
  public:
    ExposureFit(const cv::Mat& image, const std::vector<std::optional<SmoothEllipse>>& starts)
        : image_(image), starts_(starts), scratch_(static_cast<std::size_t>(largestTeam())), fitted_(starts.size()) {
        for (std::size_t i = 0; i < starts.size(); ++i)
            if (starts[i] && starts[i]->isFinite() && starts[i]->minorHalfAxis() >= kLeastRecord) byX_.push_back(i);
        std::sort(byX_.begin(), byX_.end(), [&](std::size_t a, std::size_t b) { return placeOf(a) < placeOf(b); });
        for (const std::size_t i : byX_) widest_ = std::max(widest_, 2 * starts[i]->halfSize().x);
        findNeighbours();
    }

    std::vector<FittedMarker> run(int mostDegree) {
        again({}, [](std::size_t) { return true; });
        std::vector<LightEvidence> evidence;
        for (const std::size_t i : byX_)
            if (fitted_[i].status == RefinementStatus::refined && !isReached(i))
                evidence.push_back(fitted_[i].outcome.light);
        const LightPrior light = lightOfExposure(evidence, mostDegree);
        again(light, [&](std::size_t i) { return light.degree() > 0 || isReached(i); });
        for (int pass = 0; pass < kMostPasses; ++pass) {
            const std::vector<bool> moved = moved_;
            if (std::none_of(byX_.begin(), byX_.end(), [&](std::size_t i) { return moved[i] && isReached(i); })) break;
            again(light, [&](std::size_t i) {
                return isReached(i) && std::any_of(neighbours_[i].begin(), neighbours_[i].end(),
                                                   [&](const Near& near) { return moved[near.other]; });
            });
        }
        return std::move(fitted_);
    }

  private:
    struct Near {
        std::size_t other;
        double gap;
    };

    /// What orders markers whatever the order of their records; equal markers are fitted alike.
    std::array<double, 5> placeOf(std::size_t i) const {
        const SmoothEllipse& e = *starts_[i];
        return {left(i), e.y, e.s, e.e1, e.e2};
    }
    double left(std::size_t i) const { return starts_[i]->x - starts_[i]->halfSize().x; }

    void findNeighbours() {
        neighbours_.resize(starts_.size());
        for (std::size_t a = 0; a < byX_.size(); ++a) {
            const std::size_t i = byX_[a];
            const SmoothEllipse& me = *starts_[i];
            const double far = farOf(me.s);
            for (std::size_t b = a + 1; b < byX_.size(); ++b) {
                const std::size_t j = byX_[b];
                if (left(j) > me.x + me.halfSize().x + farOf(widest_)) break;
                const double gap = gapOf(me, *starts_[j]);
                if (gap < far) neighbours_[i].push_back({j, gap});
                if (gap < farOf(starts_[j]->s)) neighbours_[j].push_back({i, gap});
            }
        }
        for (auto& list : neighbours_)
            std::sort(list.begin(), list.end(),  // their light is added up in it
                      [&](const Near& a, const Near& b) { return placeOf(a.other) < placeOf(b.other); });
    }

    /// Whether a neighbour's blur may add to this marker's: until that is taken away, it looks like uneven light.
    bool isReached(std::size_t i) const {
        return std::any_of(neighbours_[i].begin(), neighbours_[i].end(), [&](const Near& near) {
            const FittedMarker& other = fitted_[near.other];
            return other.status == RefinementStatus::refined &&
                   near.gap < 2 * kReach * totalBlur(other.outcome.model.blur);
        });
    }

    /// Fits those that are asked for, from where they are, beside what their neighbours were before.
    template <typename Asked>
    void again(const LightPrior& light, const Asked& isAsked) {
        const std::vector<FittedMarker> before = fitted_;
        std::vector<std::size_t> list;
        std::copy_if(byX_.begin(), byX_.end(), std::back_inserter(list), isAsked);
        forEachInParallel(static_cast<int>(list.size()), kMostPerMarker, [&](int item, int thread) {
            const std::size_t i = list[static_cast<std::size_t>(item)];
            std::vector<KnownNeighbour> neighbours;
            for (const Near& near : neighbours_[i]) {
                const FittedMarker& other = before[near.other];
                neighbours.push_back({*starts_[near.other], near.gap, {}});
                if (other.status == RefinementStatus::refined) neighbours.back().model = other.outcome.model;
            }
            const FittedMarker* begin = before[i].status == RefinementStatus::refined ? &before[i] : nullptr;
            fitted_[i] =
                fitMarker(image_, *starts_[i], neighbours, light, begin, scratch_[static_cast<std::size_t>(thread)]);
        });
        moved_.assign(starts_.size(), false);
        for (const std::size_t i : list) moved_[i] = hasMoved(before[i], fitted_[i]);
    }

    static bool hasMoved(const FittedMarker& from, const FittedMarker& to) {
        if (from.status != to.status) return true;
        return to.status == RefinementStatus::refined &&
               distance(from.outcome.model.ellipse, to.outcome.model.ellipse) > kMove;
    }

    const cv::Mat& image_;
    const std::vector<std::optional<SmoothEllipse>>& starts_;
    std::vector<std::size_t> byX_;  // markers that can be fitted, by their left ends
    std::vector<std::vector<Near>> neighbours_;
    std::vector<FitScratch> scratch_;
    std::vector<FittedMarker> fitted_;
    std::vector<bool> moved_;  // in the last pass
    double widest_ = 0;
};

}  // namespace

std::vector<FittedMarker> fitExposure(const cv::Mat& image, const std::vector<std::optional<SmoothEllipse>>& starts,
                                      int mostDegree) {
    return ExposureFit(image, starts).run(mostDegree);
}

}  // namespace kestrune::refinement
