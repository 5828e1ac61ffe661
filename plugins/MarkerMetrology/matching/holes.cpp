// SPDX-License-Identifier: Apache-2.0
#include "matching/holes.h"

#include <Eigen/Geometry>
#include <cmath>
#include <opencv2/imgproc.hpp>
#include <vector>

#include "matching/neighbours.h"

namespace kestrune::matching {
namespace {

cv::Point2f placeOf(const Eigen::Vector3d& direction) {
    return {static_cast<float>(direction.x() / direction.z()), static_cast<float>(direction.y() / direction.z())};
}

/// Of a whole number. (std::lgamma writes a variable that all threads share.)
double logFactorial(double n) {
    double sum = 0;
    for (double k = 2; k <= n; ++k) sum += std::log(k);
    return sum;
}

std::vector<cv::Point2f> hullOf(const std::vector<Sightline>& lines) {
    std::vector<cv::Point2f> places, hull;
    for (const Sightline& line : lines) places.push_back(placeOf(line.axis));
    cv::convexHull(places, hull);
    return hull;
}

}  // namespace

double Holes::logEvidence() const {
    double sum = 0;
    for (std::size_t eye = 0; eye < 2; ++eye)
        sum += logFactorial(seen[eye]) + logFactorial(missing[eye]) - logFactorial(seen[eye] + missing[eye] + 1);
    return sum;
}

Holes holesOf(const Views& views, const ExposureSolver& solver, const Solution& solution) {
    PairGraph graph(views, solver.candidates());
    graph.setProbability(solution.assignment.probability, solution.ends());
    Neighbourhood neighbourhood;
    neighbourhood.learn(graph, 1e-3);
    std::array<std::vector<char>, 2> isPaired;
    for (std::size_t eye = 0; eye < 2; ++eye) isPaired[eye].resize(views.lines[eye].size());
    for (const int c : solution.partner) {
        if (c < 0) continue;
        for (std::size_t eye = 0; eye < 2; ++eye) isPaired[eye][static_cast<std::size_t>(graph.line(eye, c))] = 1;
    }
    Holes holes;
    for (std::size_t eye = 0; eye < 2; ++eye) {
        const std::vector<cv::Point2f> hull = hullOf(views.lines[1 - eye]);
        const double step = eye == 0 ? -solver.baseline() : solver.baseline();
        for (int i = 0; i < static_cast<int>(views.lines[eye].size()); ++i) {
            if (isPaired[eye][static_cast<std::size_t>(i)]) {
                ++holes.seen[eye];
                continue;
            }
            const Prediction& prediction = neighbourhood.of(eye, i);
            if (prediction.count == 0) continue;
            const double depth = std::exp(prediction.hasPlane ? prediction.plane : prediction.neighbours[0].logDepth);
            const Eigen::Vector3d& axis = graph.sight(eye, i).axis;
            const Eigen::Vector3d there = depth / axis.z() * axis + Eigen::Vector3d(step, 0, 0);
            if (cv::pointPolygonTest(hull, placeOf(there), false) > 0) ++holes.missing[eye];
        }
    }
    return holes;
}

}  // namespace kestrune::matching
