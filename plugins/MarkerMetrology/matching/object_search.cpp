// SPDX-License-Identifier: Apache-2.0
#include "matching/object_search.h"

#include <Eigen/Geometry>
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>
#include <numeric>

namespace kestrune::matching {
namespace {

using Vector3 = Eigen::Vector3d;

// Triangles of more markers than these would need more memory than they are worth.
constexpr std::size_t kMostSeeds = 500;
// Steps of about a nanosecond for the whole exposure, and once more for rivals of what was found.
constexpr double kWork = 3e7, kRivalWork = 1.5e7;
constexpr double kCornerCost = 30, kTriangleCost = 100, kSideCost = 30, kLookUpCost = 15, kFitCost = 1500;
// Points near a marker's place beyond those that the costs above reckon with, each of a look and of a fit: where points
// are known less well than they are apart, all of them are near.
constexpr int kUsualNear = 16;
constexpr double kNearCost = 5, kNearFitCost = 400;
constexpr std::size_t kBins = 4096, kBinsOfRow = 128, kGuides = 1024;
constexpr double kDeviations = 4;            // of a length that may be another
constexpr double kRadiusDeviations = 6;      // likewise of a radius
constexpr double kRadiusVariance = 1e-4;     // of those in drawings, relative
constexpr double kLeastHeight = 0.15;        // of a triangle, of its longest side
constexpr double kLeastHeightInSigmas = 10;  // likewise, of the standard deviation of its corners
constexpr double kLeastWeight = 0.02;        // of a point that the exposure does not believe in
// A pose as well seen as the best one is overlooked with this probability. Triangles that cannot be used are not
// counted, so that the right ones are a larger share than by their weights; to be safe, half of it is reckoned with.
constexpr double kOverlooked = 1e-4, kShareOfTriangles = 0.5;
constexpr int kLeastTriangles = 16, kRivalTriangles = 24;
constexpr std::size_t kMostFits = 12, kTiedFits = 8;
constexpr int kFirstLook = 64;   // markers after which a pose without any point is given up
constexpr std::size_t kFew = 8;  // markers of which three may be all that is seen
constexpr double kRoughGate = 100;
constexpr double kSameGate = 25;  // chi-square between two poses that are one
constexpr std::size_t kSameLooks = 16;
constexpr double kRivalMargin = 20;  // nats: two markers that only one of the poses explains
constexpr double kWorthKeeping = 0.5;

}  // namespace

bool isRival(const PoseFit& fit, const PoseFit& other) {
    return other.explained > fit.explained - kRivalMargin;
}

ObjectSearch::ObjectSearch(const std::vector<ObjectMarker>& object, const ObjectPoints& points)
    : object_(object), points_(points), fitter_(object, points), seeds_(std::min(object.size(), kMostSeeds)) {
    measureSides();
}

void ObjectSearch::measureSides() {
    std::vector<LengthTable::Entry> sides, rows;
    lengths_.resize(seeds_ * seeds_);
    for (int i = 0; i < static_cast<int>(seeds_); ++i) {
        variance_ = std::max(variance_, fitter_.marker(i).variance);
        for (int j = 0; j < static_cast<int>(seeds_); ++j) {
            const double length = (fitter_.marker(i).place - fitter_.marker(j).place).norm();
            lengths_[rows.size()] = length;
            rows.push_back({length, i, i, j});
            if (j > i) sides.push_back({length, 0, i, j});
        }
    }
    sides_ = LengthTable(sides, 1, kBins);
    rows_ = LengthTable(rows, seeds_, kBinsOfRow);
}

ObjectSearch::Draw ObjectSearch::drawOf(const std::vector<int>& points) const {
    Draw draw{points, {}, {}};
    double sum = 0;
    for (const int p : points) draw.sums.push_back(sum += std::max(points_[p].its.probability, kLeastWeight));
    for (std::size_t k = 0, at = 0; k < kGuides; ++k) {
        while (draw.sums[at] <= sum * (static_cast<double>(k) / kGuides)) ++at;
        draw.guide.push_back(at);
    }
    return draw;
}

int ObjectSearch::pick(const Draw& draw) {
    const auto drawn = static_cast<std::uint32_t>(random_());
    const double at = draw.sums.back() * (static_cast<double>(drawn) / 4294967296.0);
    std::size_t k = draw.guide[drawn / (4294967296 / kGuides)];
    while (k + 1 < draw.points.size() && draw.sums[k] <= at) ++k;
    return draw.points[k];
}

/// Along the side by the uncertainty of its ends, and longer if they are off across it.
double ObjectSearch::tolerance(int a, int b, double length) const {
    const SpacePoint &p = points_[a].its, &q = points_[b].its;
    const Vector3 along = (p.place - q.place) / length;
    const Eigen::Matrix3d both = p.covariance + q.covariance;
    const double across = kDeviations * kDeviations * (both.trace() + 4 * variance_) / (2 * length);
    return kDeviations * std::sqrt(along.dot(both * along) + 2 * variance_) + across;
}

bool ObjectSearch::radiusFits(int point, int marker) const {
    const SpacePoint& p = points_[point].its;
    if (!(p.sigmaRadius > 0)) return true;
    const double off = (p.logRadius - fitter_.marker(marker).logRadius) / kRadiusDeviations;
    return !(off * off > p.sigmaRadius * p.sigmaRadius + kRadiusVariance);
}

/// Whether the last corner may be of one object with those before.
bool ObjectSearch::agree(std::size_t count, const std::array<int, 3>& corners) const {
    const int a = corners[count - 1];
    for (std::size_t l = 0; l + 1 < count; ++l) {
        const int b = corners[l];
        if (points_[a].its.left == points_[b].its.left || points_[a].its.right == points_[b].its.right) return false;
        const double length = distance(a, b);
        if (!(length > 0) || sides_.count(0, length, tolerance(a, b, length)) == 0) return false;
    }
    return true;
}

bool ObjectSearch::pickTriangle(const Draw& draw, std::array<int, 3>& corners) {
    for (std::size_t k = 0; k < 3; ++k) {
        work_ -= kCornerCost;
        corners[k] = pick(draw);
        if (!agree(k + 1, corners)) return false;
    }
    const auto place = [&](std::size_t k) -> const Vector3& { return points_[corners[k]].its.place; };
    const double longest = std::max(
        {distance(corners[0], corners[1]), distance(corners[1], corners[2]), distance(corners[2], corners[0])});
    const double height = (place(1) - place(0)).cross(place(2) - place(0)).norm() / longest;
    const double sigma = std::max({points_[corners[0]].sigma, points_[corners[1]].sigma, points_[corners[2]].sigma});
    return height > std::max(kLeastHeight * longest, kLeastHeightInSigmas * sigma);
}

/// All triangles of markers with the same sides.
void ObjectSearch::tryTriangle(std::array<int, 3> corners) {
    std::array<double, 3> length, most;  // of the side from each corner to the next
    const auto measure = [&] {
        for (std::size_t k = 0; k < 3; ++k) {
            const int a = corners[k], b = corners[(k + 1) % 3];
            length[k] = distance(a, b);
            most[k] = tolerance(a, b, length[k]);
        }
    };
    measure();
    std::array<std::size_t, 3> count;
    for (std::size_t k = 0; k < 3; ++k) count[k] = sides_.count(0, length[k], most[k]);
    work_ -= kTriangleCost;
    std::rotate(corners.begin(), corners.begin() + (std::min_element(count.begin(), count.end()) - count.begin()),
                corners.end());
    measure();
    const auto complete = [&](int first, int second) {
        work_ -= kSideCost;
        if (work_ < 0 || !radiusFits(corners[0], first) || !radiusFits(corners[1], second)) return;
        rows_.forNear(first, length[2], most[2], [&](const LengthTable::Entry& other) {
            if (std::abs(between(second, other.to) - length[1]) < most[1] && radiusFits(corners[2], other.to))
                consider({first, second, other.to}, corners);
        });
    };
    sides_.forNear(0, length[0], most[0], [&](const LengthTable::Entry& side) {
        complete(side.from, side.to);
        complete(side.to, side.from);
    });
}

/// Markers that have a point by a rough pose, without those that it was made of.
int ObjectSearch::roughCount(const RigidPose& pose, const std::array<int, 3>& except) {
    int count = 0;
    crowding_ = 0;
    for (int m = 0; m < static_cast<int>(object_.size()); ++m) {
        work_ -= kLookUpCost;
        if (m == kFirstLook && count == 0) return 0;
        if (m == except[0] || m == except[1] || m == except[2]) continue;
        const Vector3 place = pose(fitter_.marker(m).place);
        bool near = false;
        int looks = 0;
        points_.forNear(place, [&](int p) {
            ++looks;
            if (near) return;
            const Vector3 off = points_[p].its.place - place;
            near = off.dot(points_[p].roughWeight * off) < kRoughGate;
        });
        count += near;
        crowding_ += std::max(0, looks - kUsualNear);
    }
    work_ -= kNearCost * crowding_;
    return count;
}

bool ObjectSearch::isKnown(const RigidPose& pose) const {
    return std::any_of(fits_.begin(), fits_.end(), [&](const PoseFit& fit) {
        const std::size_t stride = fit.matches.size() / kSameLooks + 1;
        for (std::size_t k = 0; k < fit.matches.size(); k += stride) {
            const PoseFit::Match& match = fit.matches[k];
            const Vector3& place = fitter_.marker(match.marker).place;
            const Vector3 off = pose(place) - fit.pose(place);
            if (off.dot(points_[match.point].roughWeight * off) > kSameGate * fit.scale) return false;
        }
        return true;
    });
}

void ObjectSearch::consider(const std::array<int, 3>& markers, const std::array<int, 3>& corners) {
    if (isWornOut()) return;
    std::array<Vector3, 3> from, to;
    for (std::size_t k = 0; k < 3; ++k) {
        from[k] = fitter_.marker(markers[k]).place;
        to[k] = points_[corners[k]].its.place;
    }
    const RigidPose pose = poseOfTriangle(from, to);
    work_ -= 2 * kLookUpCost * static_cast<double>(fits_.size() + 1);
    if (!pose.rotation.allFinite() || isKnown(pose)) return;
    const int count = roughCount(pose, markers) + 3;
    if (count == 3 && object_.size() > kFew) return;
    if (!fits_.empty() && count < kWorthKeeping * static_cast<double>(fits_.front().matches.size())) return;
    work_ -= kFitCost * static_cast<double>(count) + kLookUpCost * static_cast<double>(object_.size());
    work_ -= kNearFitCost * crowding_;
    if (isWornOut()) return;
    PoseFit fit = fitter_.fit(pose);
    if (!fit.determined || !(fit.logOdds > 0) || isKnown(fit.pose)) return;
    const auto at = std::find_if(fits_.begin(), fits_.end(), [&](const auto& f) { return f.logOdds < fit.logOdds; });
    fits_.insert(at, std::move(fit));
    if (fits_.size() > kMostFits) fits_.pop_back();
}

double ObjectSearch::needed(const Draw& draw) const {
    if (fits_.empty()) return std::numeric_limits<double>::infinity();
    double weight = 0;
    for (const auto& match : fits_.front().matches)
        weight += std::max(points_[match.point].its.probability, kLeastWeight);
    const double share = std::min(weight / draw.sums.back(), 1.0);
    return std::log(kOverlooked) / std::log1p(-kShareOfTriangles * share * share * share);
}

bool ObjectSearch::tied() const {
    return fits_.size() >= kTiedFits && std::all_of(fits_.begin(), fits_.begin() + kTiedFits,
                                                    [&](const PoseFit& fit) { return isRival(fits_.front(), fit); });
}

void ObjectSearch::search(const Draw& draw, bool untilSettled) {
    std::array<int, 3> corners;
    for (int tried = 0; work_ > 0 && !tied();) {
        if (tried >= (untilSettled ? std::max<double>(kLeastTriangles, needed(draw)) : kRivalTriangles)) break;
        if (!pickTriangle(draw, corners)) continue;
        ++tried;
        tryTriangle(corners);
    }
}

std::vector<PoseFit> ObjectSearch::run() {
    if (seeds_ < 3 || points_.all().size() < 3) return {};
    std::vector<int> all(points_.all().size());
    std::iota(all.begin(), all.end(), 0);
    work_ = kWork;
    search(drawOf(all), true);
    return fits_.empty() ? fits_ : runAmong(std::vector(fits_.front().matches));
}

std::vector<PoseFit> ObjectSearch::runAmong(const std::vector<PoseFit::Match>& matches) {
    std::vector<int> own;
    own.reserve(matches.size());
    for (const auto& match : matches) own.push_back(match.point);
    std::sort(own.begin(), own.end());
    work_ = kRivalWork;
    search(drawOf(own), false);
    return std::move(fits_);
}

}  // namespace kestrune::matching
