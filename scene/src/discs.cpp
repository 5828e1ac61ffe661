// SPDX-License-Identifier: Apache-2.0
//
// Ready scenes: the pair of cameras, and the discs in front of it.
#include <algorithm>
#include <array>
#include <cmath>
#include <opencv2/core.hpp>
#include <vector>

#include "geometry.h"
#include "kestrune_scene/scene.h"

namespace kestrune::scene {

namespace {

// The pair: close-range photogrammetry of a hand-sized object.
constexpr double kWorkingDistance = 900;  // mm
constexpr double kFieldWidth = 300;       // mm at the working distance
// The right camera stands a little off the left one's axes and is rolled a little, so that no mistake in an axis, a
// sign or an order of rotations goes unnoticed.
const cv::Vec3d kRightPosition(250, 3, 6);  // mm
constexpr double kRightRoll = 0.012;        // rad
// Both lenses bend monotonically for any angle of view: 1 + 3 k1 r^2 + 5 k2 r^4 has no real root.
constexpr std::array<double, 5> kLeftLens{-0.12, 0.05, 3e-4, -2e-4, 0};
constexpr std::array<double, 5> kRightLens{-0.11, 0.045, -2e-4, 2.5e-4, 0};

/// Least distance of neighbouring centres on the scattered grid, in largest radii. A ring of 1.8 radii about a disc
/// stays off its neighbours with room for the perspective of the other eye.
constexpr double kScatterPitch = 3.1;

/// Depth of the scattered discs varies smoothly by about this part of the working distance: neighbours keep apart in
/// the right eye too, which a random depth for each disc would not ensure.
constexpr double kScatterRelief = 0.01;

/// Added to that for each disc alone, in radii, so that the discs lie on no smooth surface.
constexpr double kScatterRoughness = 0.25;

// The curved object, in widths of the field, and the least distance of its discs in largest radii.
constexpr double kCylinderRadius = 0.6;
constexpr double kCylinderHalfAngle = 0.7;  // rad; steeper discs turn too far from one of the cameras
constexpr double kCylinderLean = 0.1;       // of its axis against the image's y axis, rad
constexpr double kCurvedPitch = 3.2;
constexpr double kCurvedStretch = 1.4;     // of the grid around the cylinder, where the steep sides foreshorten it
constexpr double kCurvedPitchStep = 0.98;  // by which the grid shrinks until enough discs are in view

/// Where the optical axes come closest, as a depth along the left one, mm.
double convergenceDepth(const Rig& rig) {
    const cv::Vec3d position = -(rig.right.rotation.t() * rig.right.translation);
    const cv::Vec3d axis(rig.right.rotation(2, 0), rig.right.rotation(2, 1), rig.right.rotation(2, 2));
    const double cosine = axis[2], sine2 = 1 - cosine * cosine;
    if (sine2 < 1e-6) return kWorkingDistance;
    const double depth = (position[2] - cosine * axis.dot(position)) / sine2;
    return depth > 0 ? depth : kWorkingDistance;
}

/// A unit vector at most `maxTilt` away from `axis`, any direction of tilt being equally likely.
cv::Vec3d tilted(const cv::Vec3d& axis, double maxTilt, cv::RNG& rng) {
    const PlaneBasis basis = planeBasis(axis);
    const double tilt = rng.uniform(0.0, 1.0) * maxTilt, direction = rng.uniform(0.0, 2 * CV_PI);
    return axis * std::cos(tilt) + (basis.u * std::cos(direction) + basis.v * std::sin(direction)) * std::sin(tilt);
}

/// A depth that varies smoothly over the image: a tilted plane and a shallow bowl.
class Relief {
  public:
    Relief(const PinholeCamera& camera, double depth, cv::RNG& rng)
        : size_(camera.size),
          depth_(depth),
          slopeX_(rng.uniform(-1.0, 1.0)),
          slopeY_(rng.uniform(-1.0, 1.0)),
          bowl_(rng.uniform(-0.5, 0.5)) {}

    double at(cv::Point2d pixel) const {
        const double u = 2 * pixel.x / size_.width - 1, v = 2 * pixel.y / size_.width - 1;
        return depth_ * (1 + kScatterRelief * (slopeX_ * u + slopeY_ * v + bowl_ * (u * u + v * v)));
    }

  private:
    cv::Size size_;
    double depth_, slopeX_, slopeY_, bowl_;
};

/// Columns and rows of at least `count` cells that are as square as can be and no smaller than `pitch`.
cv::Size gridFor(int count, cv::Size2d area, double pitch) {
    const cv::Size limit(static_cast<int>(area.width / pitch), static_cast<int>(area.height / pitch));
    if (count <= 0 || limit.width < 1 || limit.height < 1) return {};
    cv::Size grid;
    grid.width = std::clamp(cvRound(std::sqrt(count * area.width / area.height)), 1, limit.width);
    grid.height = std::clamp((count + grid.width - 1) / grid.width, 1, limit.height);
    grid.width = std::clamp((count + grid.height - 1) / grid.height, grid.width, limit.width);
    return grid;
}

/// Every item or, of more than `count`, that many evenly spread over the list.
template <class T>
std::vector<T> evenly(const std::vector<T>& items, int count) {
    const auto wanted = static_cast<std::size_t>(std::max(count, 0));
    if (items.size() <= wanted) return items;
    std::vector<T> chosen;
    chosen.reserve(wanted);
    for (std::size_t i = 0; i < wanted; ++i) chosen.push_back(items[i * items.size() / wanted]);
    return chosen;
}

/// A cylinder in front of the pair whose nearest line faces the middle between the cameras.
class Cylinder {
  public:
    Cylinder(const Rig& rig, cv::RNG& rng) {
        const double depth = convergenceDepth(rig);
        const double fieldWidth = rig.left.size.width * depth / rig.left.intrinsic(0, 0);
        const cv::Vec3d apex = rayOfPixel(rig.left, {rig.left.size.width / 2.0, rig.left.size.height / 2.0}) * depth;
        const cv::Vec3d middle = rig.right.rotation.t() * rig.right.translation * -0.5;
        radius_ = fieldWidth * kCylinderRadius;
        halfHeight_ = fieldWidth * rig.left.size.height / rig.left.size.width / 2;
        outward_ = cv::normalize(middle - apex);
        const cv::Vec3d lean(std::sin(rng.uniform(-kCylinderLean, kCylinderLean)), 1, 0);
        across_ = cv::normalize(lean.cross(outward_));
        axis_ = outward_.cross(across_);
        origin_ = apex - outward_ * radius_;
    }

    cv::Size2d sheet() const { return {2 * radius_ * kCylinderHalfAngle, 2 * halfHeight_}; }

    /// The disc at a point of the unrolled sheet, whose middle is (0, 0).
    Disc discAt(cv::Point2d onSheet, double radius, double grey) const {
        const double angle = onSheet.x / radius_;
        const cv::Vec3d normal = outward_ * std::cos(angle) + across_ * std::sin(angle);
        return {origin_ + normal * radius_ + axis_ * onSheet.y, normal, radius, grey};
    }

  private:
    double radius_ = 0, halfHeight_ = 0;
    cv::Vec3d origin_, outward_, across_, axis_;
};

/// Discs on a staggered, jittered grid on the sheet that both eyes see.
std::vector<Disc> discsOnSheet(const Rig& rig, const Cylinder& cylinder, double pitch, double leastPitch,
                               double smallRadius, double largeRadius, double grey, cv::RNG rng) {
    const cv::Size2d sheet = cylinder.sheet();
    const double jitter = (pitch - leastPitch) / 2;
    std::vector<Disc> discs;
    const int rows = static_cast<int>(sheet.height / pitch),
              columns = static_cast<int>(sheet.width / (pitch * kCurvedStretch));
    for (int row = 0; row < rows; ++row) {
        for (int column = 0; column < columns; ++column) {
            const double stagger = row % 2 ? 0.25 : -0.25;
            const double around = (column - (columns - 1) / 2.0 + stagger) * pitch + rng.uniform(-jitter, jitter);
            const double along = (row - (rows - 1) / 2.0) * pitch + rng.uniform(-jitter, jitter);
            const double radius = rng.uniform(0, 2) ? largeRadius : smallRadius;
            const Disc disc = cylinder.discAt({around * kCurvedStretch, along}, radius, grey);
            if (projectDisc(rig.left, disc).visible && projectDisc(rig.right, disc).visible) discs.push_back(disc);
        }
    }
    return discs;
}

}  // namespace

Rig makeVergedRig(cv::Size imageSize) {
    const double focal = imageSize.width * kWorkingDistance / kFieldWidth;
    const auto intrinsic = [&](double focalScale, double offsetX, double offsetY) {
        return cv::Matx33d(focal * focalScale, 0, (imageSize.width - 1) / 2.0 + offsetX * imageSize.width, 0,
                           focal * focalScale, (imageSize.height - 1) / 2.0 + offsetY * imageSize.width, 0, 0, 1);
    };
    Rig rig;
    rig.left.intrinsic = intrinsic(1, 0.004, -0.003);
    rig.left.distortion = kLeftLens;
    rig.left.size = imageSize;

    const cv::Vec3d z = cv::normalize(cv::Vec3d(0, 0, kWorkingDistance) - kRightPosition);
    const cv::Vec3d down(std::sin(kRightRoll), std::cos(kRightRoll), 0);
    const cv::Vec3d x = cv::normalize(down.cross(z));
    const cv::Vec3d y = z.cross(x);
    rig.right.intrinsic = intrinsic(1.003, -0.003, 0.002);
    rig.right.distortion = kRightLens;
    rig.right.rotation = cv::Matx33d(x[0], x[1], x[2], y[0], y[1], y[2], z[0], z[1], z[2]);
    rig.right.translation = -(rig.right.rotation * kRightPosition);
    rig.right.size = imageSize;
    return rig;
}

std::vector<Disc> makeScatteredDiscs(const Rig& rig, int count, double minRadiusPx, double maxRadiusPx,
                                     double maxTiltDegrees, double grey, std::uint64_t seed) {
    if (!(maxRadiusPx > 0)) return {};
    const double margin = kVisibleMargin + maxRadiusPx / 2;
    const cv::Size2d area(rig.left.size.width - 1 - 2 * margin, rig.left.size.height - 1 - 2 * margin);
    const double leastPitch = kScatterPitch * maxRadiusPx;
    const cv::Size grid = gridFor(count, area, leastPitch);
    if (grid.empty()) return {};

    cv::RNG rng = randomStream(seed, 0);
    const Relief relief(rig.left, convergenceDepth(rig), rng);
    const cv::Size2d pitch(area.width / grid.width, area.height / grid.height);
    const cv::Point2d jitter((pitch.width - leastPitch) / 2, (pitch.height - leastPitch) / 2);
    std::vector<cv::Point2d> cells;
    for (int row = 0; row < grid.height; ++row)
        for (int column = 0; column < grid.width; ++column)
            cells.emplace_back(margin + (column + 0.5) * pitch.width, margin + (row + 0.5) * pitch.height);

    std::vector<Disc> discs;
    for (const cv::Point2d& cell : evenly(cells, count)) {
        const double down = rng.uniform(-1.0, 1.0), across = rng.uniform(-1.0, 1.0);  // in one order on all compilers
        const cv::Point2d pixel(cell.x + across * jitter.x, cell.y + down * jitter.y);
        const double radiusPx = minRadiusPx + rng.uniform(0.0, 1.0) * (maxRadiusPx - minRadiusPx);
        const double surface = relief.at(pixel), perPixel = surface / rig.left.intrinsic(0, 0);
        const double depth = surface + rng.uniform(-1.0, 1.0) * kScatterRoughness * radiusPx * perPixel;
        const cv::Vec3d normal = tilted({0, 0, -1}, maxTiltDegrees * CV_PI / 180, rng);
        const Disc disc{rayOfPixel(rig.left, pixel) * depth, normal, radiusPx * perPixel, grey};
        if (projectDisc(rig.left, disc).visible) discs.push_back(disc);
    }
    return discs;
}

std::vector<Disc> makeCurvedObject(const Rig& rig, int count, double smallRadiusMm, double largeRadiusMm, double grey,
                                   std::uint64_t seed) {
    const double leastPitch = kCurvedPitch * std::max(smallRadiusMm, largeRadiusMm);
    if (count <= 0 || !(leastPitch > 0)) return {};
    cv::RNG rng = randomStream(seed, 0);
    const Cylinder cylinder(rig, rng);
    double pitch = std::max(leastPitch, std::sqrt(cylinder.sheet().area() / count));
    while (true) {
        const std::vector<Disc> discs =
            discsOnSheet(rig, cylinder, pitch, leastPitch, smallRadiusMm, largeRadiusMm, grey, rng);
        if (static_cast<int>(discs.size()) >= count || pitch <= leastPitch) return evenly(discs, count);
        pitch = std::max(leastPitch, pitch * kCurvedPitchStep);
    }
}

}  // namespace kestrune::scene
