// SPDX-License-Identifier: Apache-2.0
//
// From discs in the world to ellipses in pixels.
#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
#include <opencv2/calib3d.hpp>
#include <opencv2/core.hpp>
#include <utility>
#include <vector>

#include "geometry.h"
#include "kestrune_scene/scene.h"

namespace kestrune::scene {

namespace {

/// Rim points that decide whether a disc is wholly on the image: the rim between two of them bulges by 3e-4 radii.
constexpr int kVisibilityVertices = 128;

/// Radii at which the lens is checked for folding back, from the axis to the point in question.
constexpr int kFoldChecks = 8;

/// OpenCV's distortion of a normalised point.
cv::Point2d distort(const std::array<double, 5>& lens, cv::Point2d p) {
    const auto [k1, k2, p1, p2, k3] = lens;
    const double r2 = p.dot(p);
    const double radial = 1 + r2 * (k1 + r2 * (k2 + r2 * k3));
    const double xy = p.x * p.y;
    return {p.x * radial + 2 * p1 * xy + p2 * (r2 + 2 * p.x * p.x),
            p.y * radial + p1 * (r2 + 2 * p.y * p.y) + 2 * p2 * xy};
}

/// False if the radial polynomial stops growing anywhere up to `p`: beyond such a fold points far outside the field
/// would reappear on the image.
bool withinFold(const std::array<double, 5>& lens, cv::Point2d p) {
    const auto [k1, k2, p1, p2, k3] = lens;
    const double r2Max = p.dot(p);
    for (int i = 1; i <= kFoldChecks; ++i) {
        const double r2 = r2Max * i / kFoldChecks;
        if (1 + r2 * (3 * k1 + r2 * (5 * k2 + r2 * 7 * k3)) <= 0) return false;
    }
    return true;
}

cv::Point2d toPixel(const cv::Matx33d& intrinsic, cv::Point2d normalised) {
    const cv::Vec3d p = intrinsic * cv::Vec3d(normalised.x, normalised.y, 1);
    return {p[0] / p[2], p[1] / p[2]};
}

cv::Vec3d toCamera(const PinholeCamera& camera, const cv::Vec3d& world) {
    return camera.rotation * world + camera.translation;
}

/// Conic of the rim in pixels relative to `origin`, as a symmetric matrix of any scale. Near its own centre the conic
/// keeps full precision; about the image's corner the constant term would swamp the others.
cv::Matx33d conicAbout(const PinholeCamera& camera, const Disc& disc, cv::Point2d origin) {
    const PlaneBasis basis = planeBasis(disc.normal);
    const cv::Vec3d centre = toCamera(camera, disc.centre);
    const cv::Vec3d u = camera.rotation * basis.u * disc.radius;
    const cv::Vec3d v = camera.rotation * basis.v * disc.radius;
    const cv::Matx33d shift(1, 0, -origin.x, 0, 1, -origin.y, 0, 0, 1);
    const cv::Matx33d planeToCamera(u[0], v[0], centre[0], u[1], v[1], centre[1], u[2], v[2], centre[2]);
    const cv::Matx33d toPlane = (shift * camera.intrinsic * planeToCamera * (1 / centre[2])).inv();
    return toPlane.t() * cv::Matx33d::diag({1, 1, -1}) * toPlane;
}

/// Fills centre, axes, angle and conic. False if the conic is no ellipse.
bool ellipseFromConic(const cv::Matx33d& q, cv::Point2d origin, EllipseTruth& truth) {
    const double det = q(0, 0) * q(1, 1) - q(0, 1) * q(0, 1);
    if (!(det > 0)) return false;
    const cv::Point2d offset((q(0, 1) * q(1, 2) - q(1, 1) * q(0, 2)) / det,
                             (q(0, 1) * q(0, 2) - q(0, 0) * q(1, 2)) / det);
    const double atCentre = q(2, 2) + q(0, 2) * offset.x + q(1, 2) * offset.y;
    const double scale = -1 / atCentre;
    const double a = q(0, 0) * scale, b = 2 * q(0, 1) * scale, c = q(1, 1) * scale;
    if (!(a > 0) || !std::isfinite(a + b + c)) return false;

    const double largeEigen = (a + c + std::hypot(a - c, b)) / 2;
    const double smallEigen = (a * c - b * b / 4) / largeEigen;
    truth.majorHalfAxis = 1 / std::sqrt(smallEigen);
    truth.minorHalfAxis = 1 / std::sqrt(largeEigen);
    truth.angle = std::atan2(-b, c - a) / 2;
    if (truth.angle < 0) truth.angle += CV_PI;
    if (truth.angle >= CV_PI) truth.angle = 0;

    truth.centre = origin + offset;
    const auto [x, y] = std::pair(truth.centre.x, truth.centre.y);
    truth.conic = {a, b, c, -2 * a * x - b * y, -b * x - 2 * c * y, a * x * x + b * x * y + c * y * y - 1};
    return true;
}

bool insideWithMargin(const std::vector<cv::Point2d>& points, cv::Size size, double margin) {
    return std::all_of(points.begin(), points.end(), [&](cv::Point2d p) {
        return p.x >= margin && p.y >= margin && p.x <= size.width - 1 - margin && p.y <= size.height - 1 - margin;
    });
}

}  // namespace

PlaneBasis planeBasis(const cv::Vec3d& normal) {
    const cv::Vec3d n = cv::normalize(normal);
    const cv::Vec3d helper = std::abs(n[0]) < 0.7 ? cv::Vec3d(1, 0, 0) : cv::Vec3d(0, 1, 0);
    const cv::Vec3d u = cv::normalize(helper - n * n.dot(helper));
    return {u, n.cross(u)};
}

bool facesCamera(const PinholeCamera& camera, const Disc& disc) {
    return (camera.rotation * disc.normal).dot(toCamera(camera, disc.centre)) < 0;
}

cv::Vec3d rayOfPixel(const PinholeCamera& camera, cv::Point2d pixel) {
    std::vector<cv::Point2d> point{pixel};
    cv::undistortPoints(point, point, camera.intrinsic, camera.distortion);
    return {point[0].x, point[0].y, 1};
}

cv::Point2d projectPoint(const PinholeCamera& camera, const cv::Vec3d& world) {
    const cv::Vec3d p = toCamera(camera, world);
    if (!(p[2] > 0)) return {std::numeric_limits<double>::quiet_NaN(), std::numeric_limits<double>::quiet_NaN()};
    return toPixel(camera.intrinsic, distort(camera.distortion, {p[0] / p[2], p[1] / p[2]}));
}

std::vector<cv::Point2d> rimPolygon(const PinholeCamera& camera, const Disc& disc, int vertices) {
    const PlaneBasis basis = planeBasis(disc.normal);
    const cv::Vec3d centre = toCamera(camera, disc.centre);
    const cv::Vec3d u = camera.rotation * basis.u, v = camera.rotation * basis.v;
    const double step = 2 * CV_PI / vertices;
    // A polygon on the rim is smaller than the disc by step^2 / 6; grown by half of that it has the disc's area.
    const double radius = disc.radius * std::sqrt(step / std::sin(step));
    std::vector<cv::Point2d> rim;
    rim.reserve(static_cast<std::size_t>(vertices));
    for (int i = 0; i < vertices; ++i) {
        const cv::Vec3d p = centre + u * (radius * std::cos(i * step)) + v * (radius * std::sin(i * step));
        const cv::Point2d normalised(p[0] / p[2], p[1] / p[2]);
        if (!(p[2] > 0) || !withinFold(camera.distortion, normalised)) return {};
        rim.push_back(toPixel(camera.intrinsic, distort(camera.distortion, normalised)));
    }
    return rim;
}

EllipseTruth projectDisc(const PinholeCamera& camera, const Disc& disc) {
    EllipseTruth truth;
    const cv::Vec3d centre = toCamera(camera, disc.centre);
    if (!(centre[2] > 0)) return truth;
    truth.projectedCentre = toPixel(camera.intrinsic, {centre[0] / centre[2], centre[1] / centre[2]});
    if (!ellipseFromConic(conicAbout(camera, disc, truth.projectedCentre), truth.projectedCentre, truth)) return truth;

    const cv::Vec3d ray = camera.intrinsic.inv() * cv::Vec3d(truth.centre.x, truth.centre.y, 1);
    truth.distortedCentre = toPixel(camera.intrinsic, distort(camera.distortion, {ray[0] / ray[2], ray[1] / ray[2]}));
    const std::vector<cv::Point2d> rim = rimPolygon(camera, disc, kVisibilityVertices);
    truth.visible = !rim.empty() && facesCamera(camera, disc) && insideWithMargin(rim, camera.size, kVisibleMargin);
    return truth;
}

}  // namespace kestrune::scene
