// SPDX-License-Identifier: Apache-2.0
#include "objects.h"

#include <algorithm>
#include <array>
#include <opencv2/calib3d.hpp>

namespace kestrune::bench {
namespace {

constexpr double kLeastRadius = 4, kMostRadius = 25;  ///< of images, px
constexpr double kRadiusShare = 0.36;                 ///< most of a radius, in pitches: markers keep off each other
constexpr double kFree = 1.15;                        ///< least distance of random markers, in sums of their radii
constexpr int kTries = 300;                           ///< to place one
constexpr double kWidestArc = 65 * CV_PI / 180;       ///< of a cylinder, to either side
constexpr double kSteepest = 50 * CV_PI / 180;        ///< of single markers and clusters
constexpr double kDeepest = 0.35;                     ///< of layers and volumes: to both sides, in distances
constexpr double kMostShift = 0.4;                    ///< of a shifted grid, in baselines: else no shift is consistent

/// A marker in the object's own frame: u along, v down, w away from the eyes.
struct Spot {
    cv::Vec3d place, normal{0, 0, -1};
    int column = -1;
};

/// What layouts need to know, in lengths.
struct Measures {
    double half;        ///< width of the object
    double pitch;       ///< between neighbours of a grid
    int columns, rows;  ///< of a grid
    double distance;    ///< from the eyes
    double largest;     ///< radius
    int count;
};

double perPixel(const SceneKind& kind, const TrueRig& rig) {
    return cv::norm(rig.target) / kind.focal;
}

Measures measuresOf(const SceneKind& kind, const TrueRig& rig, Draws& draws) {
    const double pixel = perPixel(kind, rig);
    Measures m{};
    m.half = kind.fill * rig.room * pixel;
    m.distance = cv::norm(rig.target);
    const double most = std::pow(2 * m.half * kRadiusShare / (kLeastRadius * pixel * kind.sizeSpread), 2);
    m.count = std::max(6, static_cast<int>(std::min<double>(kind.markers, most)));
    const double aspect = draws.logUniform(0.7, 1.4);
    m.columns = std::max(2, static_cast<int>(std::lround(std::sqrt(m.count * aspect))));
    m.rows = std::max(2, static_cast<int>(std::lround(static_cast<double>(m.count) / m.columns)));
    m.columns += kind.shift;
    m.pitch = 2 * m.half / std::max(m.columns, m.rows);
    if (kind.shift > 0) m.pitch = std::min(m.pitch, kMostShift * cv::norm(rig.cameras.right.translation) / kind.shift);
    m.largest = std::min({kind.radius * kind.sizeSpread * pixel, kMostRadius * pixel, kRadiusShare * m.pitch});
    return m;
}

std::vector<double> nominalRadii(const SceneKind& kind, double largest) {
    std::vector<double> radii;
    for (int k = 0; k < kind.sizes; ++k)
        radii.push_back(largest / std::pow(kind.sizeSpread, kind.sizes > 1 ? k / (kind.sizes - 1.) : 0));
    return radii;
}

/// @param nominal  empty for continuous sizes
std::vector<double> drawRadii(const SceneKind& kind, const std::vector<double>& nominal, double largest, int count,
                              Draws& draws) {
    std::vector<double> radii;
    const double usual = draws.chance(0.5) ? 0.8 : 0;  // in many a project nearly all are of one size
    for (int k = 0; k < count; ++k) {
        if (nominal.empty()) {
            radii.push_back(largest / draws.logUniform(1, kind.sizeSpread));
            continue;
        }
        const int size = draws.chance(usual) ? 0 : draws.whole(0, static_cast<int>(nominal.size()) - 1);
        radii.push_back(nominal[static_cast<std::size_t>(size)] * (1 + kind.sizeScatter * draws.normal()));
    }
    return radii;
}

/// Places in a square or a disc, none of which touch. Fewer than radii where there is no room.
std::vector<cv::Point2d> scattered(double half, bool round, double largest, int count, Draws& draws) {
    std::vector<cv::Point2d> places;
    for (int tries = kTries * count; tries > 0 && static_cast<int>(places.size()) < count; --tries) {
        const cv::Point2d p(draws.uniform(-half, half), draws.uniform(-half, half));
        if (round && std::hypot(p.x, p.y) > half) continue;
        const auto touches = [&](const cv::Point2d& q) {
            return std::hypot(p.x - q.x, p.y - q.y) < 2 * kFree * largest;
        };
        if (std::none_of(places.begin(), places.end(), touches)) places.push_back(p);
    }
    return places;
}

std::vector<Spot> gridSpots(const Measures& m, double jitter, Draws& draws) {
    std::vector<Spot> spots;
    for (int row = 0; row < m.rows; ++row)
        for (int column = 0; column < m.columns; ++column)
            spots.push_back({.place = {m.pitch * (column - 0.5 * (m.columns - 1) + draws.normal(jitter)),
                                       m.pitch * (row - 0.5 * (m.rows - 1) + draws.normal(jitter)), 0},
                             .column = column});
    return spots;
}

std::vector<Spot> randomSpots(const Measures& m, Draws& draws) {
    std::vector<Spot> spots;
    for (const cv::Point2d& p : scattered(m.half, false, m.largest, m.count, draws)) spots.push_back({{p.x, p.y, 0}});
    return spots;
}

/// Bends a plane about its v axis, its outer parts away from the eyes or towards them.
void bend(std::vector<Spot>& spots, const Measures& m, Draws& draws) {
    const double radius = m.half * draws.uniform(1 / kWidestArc, 2.5), sign = draws.chance(0.75) ? 1 : -1;
    for (Spot& spot : spots) {
        const double angle = spot.place[0] / radius;
        spot.place = {radius * std::sin(angle), spot.place[1], sign * radius * (1 - std::cos(angle))};
        spot.normal = {sign * std::sin(angle), 0, -std::cos(angle)};
    }
}

/// Sheets one behind the other, or steps side by side.
void spreadOnLayers(std::vector<Spot>& spots, const Measures& m, Draws& draws) {
    const int layers = draws.whole(2, 4);
    const bool steps = draws.chance(0.5);
    const double span = std::min(draws.uniform(0.2, 1.5) * m.half, kDeepest * m.distance);
    for (Spot& spot : spots) {
        const double across = 0.5 * (1 + spot.place[0] / m.half);
        const int layer =
            steps ? std::clamp(static_cast<int>(across * layers), 0, layers - 1) : draws.whole(0, layers - 1);
        spot.place[2] = span * (layer / (layers - 1.) - 0.5);
    }
}

cv::Vec3d tiltedNormal(double most, Draws& draws) {
    const double tilt = draws.uniform(0, most), t = draws.angle();
    return {std::sin(tilt) * std::cos(t), std::sin(tilt) * std::sin(t), -std::cos(tilt)};
}

void spreadInVolume(std::vector<Spot>& spots, const Measures& m, Draws& draws) {
    const double depth = std::min(draws.uniform(0.2, 1) * m.half, 0.5 * kDeepest * m.distance);
    for (Spot& spot : spots) {
        spot.place[2] = draws.uniform(-depth, depth);
        spot.normal = tiltedNormal(kSteepest, draws);
    }
}

std::vector<Spot> clusterSpots(const Measures& m, Draws& draws) {
    const int clusters = draws.whole(3, 10), each = std::max(2, m.count / clusters);
    const bool onOnePlane = draws.chance(0.5);
    const double depth = onOnePlane ? 0 : std::min(0.5 * m.half, 0.5 * kDeepest * m.distance);
    const double reach = std::min(2.5 * m.largest * std::sqrt(each), m.half);
    std::vector<Spot> spots;
    for (const cv::Point2d& middle : scattered(m.half, false, 0.4 * reach, clusters, draws)) {
        const cv::Vec3d centre(middle.x, middle.y, draws.uniform(-depth, depth));
        const cv::Vec3d normal = onOnePlane ? cv::Vec3d(0, 0, -1) : tiltedNormal(0.6 * kSteepest, draws);
        const cv::Vec3d u = cv::normalize(cv::Vec3d(0, 1, 0).cross(normal)), v = normal.cross(u);
        for (const cv::Point2d& p : scattered(reach, true, m.largest, each, draws))
            spots.push_back({centre + u * p.x + v * p.y, normal});
    }
    return spots;
}

std::vector<Spot> spotsOf(const SceneKind& kind, const Measures& m, Draws& draws) {
    const bool grid = kind.layout == Layout::gridPlane || kind.layout == Layout::gridCylinder ||
                      (kind.layout == Layout::layers && draws.chance(0.5));
    if (kind.layout == Layout::clusters) return clusterSpots(m, draws);
    std::vector<Spot> spots = grid ? gridSpots(m, kind.jitter, draws) : randomSpots(m, draws);
    if (kind.layout == Layout::randomCylinder || kind.layout == Layout::gridCylinder) bend(spots, m, draws);
    if (kind.layout == Layout::layers) spreadOnLayers(spots, m, draws);
    if (kind.layout == Layout::volume) spreadInVolume(spots, m, draws);
    return spots;
}

cv::Matx33d turn(const cv::Vec3d& vector) {
    cv::Matx33d rotation;
    cv::Rodrigues(vector, rotation);
    return rotation;
}

/// From the object's frame to that of the rig.
cv::Matx33d attitude(const SceneKind& kind, Draws& draws) {
    const double tilt = kind.tilt * CV_PI / 180, about = draws.angle();
    if (kind.stance == Stance::level) {
        const bool upright = kind.trouble == Trouble::shifted || draws.chance(0.5);
        return turn({draws.chance(0.5) ? tilt : -tilt, 0, 0}) * turn({0, 0, upright ? 0 : CV_PI / 2});
    }
    return turn({tilt * std::cos(about), tilt * std::sin(about), 0}) * turn({0, 0, draws.angle()});
}

}  // namespace

TrueObject makeObject(const SceneKind& kind, const TrueRig& rig, Draws& draws) {
    const Measures m = measuresOf(kind, rig, draws);
    const std::vector<Spot> spots = spotsOf(kind, m, draws);
    TrueObject object;
    object.radii = nominalRadii(kind, m.largest);
    const std::vector<double> radii = drawRadii(kind, object.radii, m.largest, static_cast<int>(spots.size()), draws);
    const cv::Matx33d toWorld = rig.frame * attitude(kind, draws);
    for (std::size_t k = 0; k < spots.size(); ++k) {
        object.discs.push_back({rig.target + toWorld * spots[k].place, toWorld * spots[k].normal, radii[k], 0});
        if (kind.layout == Layout::gridPlane) object.columns.push_back(spots[k].column);
    }
    object.columnCount = m.columns;
    return object;
}

}  // namespace kestrune::bench
