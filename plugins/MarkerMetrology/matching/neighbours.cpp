// SPDX-License-Identifier: Apache-2.0
#include "matching/neighbours.h"

#include <Eigen/Cholesky>
#include <algorithm>
#include <cmath>

namespace kestrune::matching {
namespace {

using Vector3 = Eigen::Vector3d;

// A pair from this on may predict others.
constexpr double kAnchor = 0.7;
constexpr int kLeastForPlane = 4;
constexpr double kLineRidge = 1e-6;  // for neighbours in one line
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
        predictions_[eye].clear();
        for (int i = 0; i < count; ++i) predictions_[eye].push_back(predict(graph, eye, i, sigma));
    }
}

Prediction Neighbourhood::predict(const PairGraph& graph, std::size_t eye, int line, double sigma) const {
    const Eigen::Vector3d& axis = graph.sight(eye, line).axis;
    const double u = axis.x() / axis.z(), v = axis.y() / axis.z();
    Prediction prediction;
    std::array<std::pair<double, const Anchor*>, Prediction::kMost> nearest;
    std::size_t count = 0;
    for (const Anchor& anchor : anchors_[eye]) {
        if (anchor.line == line) continue;
        const double distance = (anchor.u - u) * (anchor.u - u) + (anchor.v - v) * (anchor.v - v);
        if (count == nearest.size() && !(distance < nearest.back().first)) continue;
        std::size_t k = count < nearest.size() ? count++ : count - 1;
        for (; k > 0 && distance < nearest[k - 1].first; --k) nearest[k] = nearest[k - 1];
        nearest[k] = {distance, &anchor};
    }
    for (std::size_t k = 0; k < count; ++k) {
        const auto& [distance2, anchor] = nearest[k];
        const double distance = std::sqrt(distance2);
        const double byNormal = graph.fit(anchor->candidate).sigmaNormal * distance;
        prediction.neighbours[k] = {anchor->candidate,
                                    anchor->logDepth,
                                    tangentDepth(graph, eye, line, anchor->candidate),
                                    std::sqrt(sigma * sigma + byNormal * byNormal),
                                    distance,
                                    anchor->u - u,
                                    anchor->v - v};
    }
    prediction.count = static_cast<int>(count);
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
            if (k != without) body(Vector3(1, neighbour.u, neighbour.v), std::exp(-neighbour.logDepth));
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
