// SPDX-License-Identifier: Apache-2.0
#include "matching/neighbours.h"

#include <Eigen/Cholesky>
#include <algorithm>
#include <cmath>
#include <cstdint>

#include "parallel/parallel_loop.h"

namespace kestrune::matching {
namespace {

using Vector3 = Eigen::Vector3d;

// A pair from this on may predict others.
constexpr double kAnchor = 0.7;
constexpr int kLeastForPlane = 4;
constexpr std::int64_t kMostOfOnePrediction = 100'000;  // ns: a thousand anchors
constexpr double kLineRidge = 1e-6;                     // for neighbours in one line
// A plane that is met at another depth than this, as a ratio, is seen from its edge.
constexpr double kMostRatio = 5;

/// Log depth at which a line of sight meets the plane of a pair's disc.
double tangentDepth(const PairGraph& graph, std::size_t eye, int line, int candidate) {
    const CircleFit& fit = graph.fit(candidate);
    const Sightline &from = graph.sight(eye, graph.line(eye, candidate)), &to = graph.sight(eye, line);
    const double ratio = fit.normal.dot(from.axis) * to.axis.z() / (fit.normal.dot(to.axis) * from.axis.z());
    return ratio > 1 / kMostRatio && ratio < kMostRatio ? fit.logDepth + std::log(ratio) : fit.logDepth;
}

}  // namespace

void Neighbourhood::learn(const PairGraph& graph, double sigma) {
    for (std::size_t eye = 0; eye < 2; ++eye) {
        const auto count = static_cast<int>(graph.own[eye].size());
        anchors_[eye].clear();
        for (int i = 0; i < count; ++i) {
            for (const int c : graph.own[eye][static_cast<std::size_t>(i)]) {
                if (graph.worth(c) < kAnchor) continue;
                const Eigen::Vector3d& axis = graph.sight(eye, i).axis;
                const double logDepth = graph.fit(c).logDepth;
                anchors_[eye].push_back(
                    {i, c, axis.x() / axis.z(), axis.y() / axis.z(), logDepth, std::exp(-logDepth)});
            }
        }
        std::sort(anchors_[eye].begin(), anchors_[eye].end(),
                  [](const Anchor& a, const Anchor& b) { return a.v < b.v || (a.v == b.v && a.line < b.line); });
        predictions_[eye].resize(static_cast<std::size_t>(count));
        forEachInParallel(count, kMostOfOnePrediction, [&](int i) {
            predictions_[eye][static_cast<std::size_t>(i)] = predict(graph, eye, i, sigma);
        });
    }
}

namespace {

/// The anchors nearest to a place on the image, the nearest first; of those at one distance the lower line.
class Nearest {
  public:
    Nearest(double u, double v, int line) : u_(u), v_(v), line_(line) {}

    std::size_t count() const { return count_; }
    double distance2(std::size_t k) const { return nearest_[k].distance2; }
    const Anchor& anchor(std::size_t k) const { return *nearest_[k].anchor; }

    /// Anchors in the order of v: from the place itself both ways, until all that are left are too far.
    void search(const std::vector<Anchor>& anchors) {
        auto up = std::lower_bound(anchors.begin(), anchors.end(), v_,
                                   [](const Anchor& anchor, double v) { return anchor.v < v; });
        auto down = up;
        for (bool goesOn = true; goesOn;) {
            goesOn = false;
            if (up != anchors.end() && take(*up)) goesOn = true, ++up;
            if (down != anchors.begin() && take(*(down - 1))) goesOn = true, --down;
        }
    }

  private:
    struct Item {
        double distance2;
        const Anchor* anchor;
    };

    /// False where this one and all beyond it are too far.
    bool take(const Anchor& anchor) {
        const double dv = anchor.v - v_;
        const bool isFull = count_ == nearest_.size();
        if (isFull && dv * dv > nearest_.back().distance2) return false;
        if (anchor.line == line_) return true;
        const Item item{(anchor.u - u_) * (anchor.u - u_) + dv * dv, &anchor};
        if (isFull && !isNearer(item, nearest_.back())) return true;
        std::size_t k = isFull ? count_ - 1 : count_++;
        for (; k > 0 && isNearer(item, nearest_[k - 1]); --k) nearest_[k] = nearest_[k - 1];
        nearest_[k] = item;
        return true;
    }
    static bool isNearer(const Item& a, const Item& b) {
        return a.distance2 < b.distance2 || (a.distance2 == b.distance2 && a.anchor->line < b.anchor->line);
    }

    double u_, v_;
    int line_;
    std::size_t count_ = 0;
    std::array<Item, Prediction::kMost> nearest_{};
};

}  // namespace

Prediction Neighbourhood::predict(const PairGraph& graph, std::size_t eye, int line, double sigma) const {
    const Eigen::Vector3d& axis = graph.sight(eye, line).axis;
    const double u = axis.x() / axis.z(), v = axis.y() / axis.z();
    Prediction prediction;
    Nearest nearest(u, v, line);
    nearest.search(anchors_[eye]);
    for (std::size_t k = 0; k < nearest.count(); ++k) {
        const Anchor& anchor = nearest.anchor(k);
        const double distance = std::sqrt(nearest.distance2(k));
        const double byNormal = graph.fit(anchor.candidate).sigmaNormal * distance;
        prediction.neighbours[k] = {anchor.candidate,
                                    anchor.logDepth,
                                    anchor.inverseDepth,
                                    tangentDepth(graph, eye, line, anchor.candidate),
                                    std::sqrt(sigma * sigma + byNormal * byNormal),
                                    distance,
                                    anchor.u - u,
                                    anchor.v - v};
    }
    prediction.count = static_cast<int>(nearest.count());
    prediction.fitPlane(-1, sigma);
    return prediction;
}

/// Where neighbours lie in one plane, inverse depth is linear in the tangents of the direction.
void Prediction::fitPlane(int without, double sigma) {
    hasPlane = false;
    Eigen::Matrix3d normal = Eigen::Matrix3d::Zero();
    Vector3 right = Vector3::Zero();
    int used = 0;
    const auto each = [&](const auto& body) {
        for (int k = 0; k < count; ++k) {
            const Neighbour& neighbour = neighbours[static_cast<std::size_t>(k)];
            if (k != without) body(Vector3(1, neighbour.u, neighbour.v), neighbour.inverseDepth);
        }
    };
    each([&](const Vector3& row, double inverseDepth) {
        normal += row * row.transpose();
        right += inverseDepth * row;
        ++used;
    });
    if (used < kLeastForPlane) return;
    normal.diagonal().tail<2>().array() += kLineRidge * (normal(1, 1) + normal(2, 2));
    const Vector3 fitted = normal.ldlt().solve(right);
    if (!(fitted[0] > 0)) return;
    double sum = 0;
    each([&](const Vector3& row, double inverseDepth) {
        const double off = inverseDepth - fitted.dot(row);
        sum += off * off;
    });
    hasPlane = true;
    plane = -std::log(fitted[0]);
    planeSigma = std::max(std::sqrt(sum / (used - 2)) / fitted[0], sigma);  // one more than is free: few say little
}

}  // namespace kestrune::matching
