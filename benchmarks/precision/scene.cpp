// SPDX-License-Identifier: Apache-2.0
#include "scene.h"

#include <algorithm>
#include <numbers>

namespace kestrune::bench {
namespace {

constexpr int kSide = 800;                                ///< px; an image has about this width
constexpr double kFreeGround = 8;                         ///< px about a marker and what is blurred of it
constexpr double kGap = 3;                                ///< px between the rims of a pair
constexpr double kFreeShare = 0.6;                        ///< of the radius, added to that
constexpr double kFocal = 1000;                           ///< px
constexpr double kCoveredFrom = 0.6;                      ///< of the radius: a fifth of the diameter is behind it
constexpr double kCoverHalfWidth = 1.3, kCoverEnd = 1.5;  ///< of what covers, radii
constexpr double kThirdLevel = 0.5;                       ///< its grey, of the way from ground to marker

double uniform(std::mt19937_64& random, double low, double high) {
    return std::uniform_real_distribution<double>(low, high)(random);
}

cv::Point2d unit(double angle) {
    return {std::cos(angle), std::sin(angle)};
}

cv::Point2d normalised(const cv::Point2d& v) {
    return v / std::hypot(v.x, v.y);
}

/// A point of the ellipse's own frame, in which it is the unit circle.
cv::Point2d fromOwnFrame(const Ellipse& ellipse, const cv::Point2d& p) {
    const cv::Point2d along = unit(ellipse.angle()), across{-along.y, along.x};
    return ellipse.centre() + along * (ellipse.major() * p.x) + across * (ellipse.minor() * p.y);
}

struct Grid {
    double tile, margin;
    int side;  ///< tiles in a row

    cv::Point2d middleOf(int index) const {
        const int row = index / side;
        return {margin + tile * (index % side + 0.5), margin + tile * (row + 0.5)};
    }
    cv::Size size() const {
        const int length = static_cast<int>(std::ceil(2 * margin + tile * side));
        return {length, length};
    }
};

Grid gridFor(const Kind& kind, const Blur& blur) {
    const double free = kFreeGround + 2.5 * blur.widest() + kFreeShare * kind.radius;
    double extent = 2 * kind.radius;
    if (kind.pairs) extent += 2 * kind.minorHalfAxis() + kGap;
    if (kind.cover == Cover::third) extent = 2 * kind.radius * kCoverEnd;
    const double tile = extent + 2 * free;
    return {tile, free, std::max(1, static_cast<int>((kSide - 2 * free) / tile))};
}

void cover(Scene& scene, TrueMarker& marker, std::mt19937_64& random) {
    const cv::Point2d n = unit(uniform(random, 0, 2 * std::numbers::pi)), t{-n.y, n.x};
    const auto corner = [&](double along, double across) {
        return fromOwnFrame(marker.ellipse, n * along + t * across);
    };
    const cv::Point2d first = corner(kCoveredFrom, -kCoverHalfWidth), last = corner(kCoveredFrom, kCoverHalfWidth);
    const cv::Point2d edge = normalised(last - first);
    cv::Point2d normal{edge.y, -edge.x};
    if (normal.dot(first - marker.ellipse.centre()) < 0) normal = -normal;
    marker.covered = HalfPlane{normal, normal.dot(first)};
    marker.direction = normal;
    if (scene.kind.cover == Cover::third)
        scene.covers.push_back({first, corner(kCoverEnd, -kCoverHalfWidth), corner(kCoverEnd, kCoverHalfWidth), last});
}

void addMarkers(Scene& scene, const cv::Point2d& middle, std::mt19937_64& random) {
    const Kind& kind = scene.kind;
    const cv::Point2d place = middle + cv::Point2d(uniform(random, -0.5, 0.5), uniform(random, -0.5, 0.5));
    const cv::Point2d centre = scene.lens ? scene.lens->inverse(place) : place;
    const double angle = uniform(random, 0, std::numbers::pi);
    const Ellipse ellipse = Ellipse::of(centre, kind.radius, kind.minorHalfAxis(), angle);
    if (kind.pairs) {
        const cv::Point2d across = unit(angle + std::numbers::pi / 2);
        for (const double sign : {-1., 1.}) {
            TrueMarker marker{ellipse, across * -sign};
            marker.ellipse.x += sign * across.x * (kind.minorHalfAxis() + kGap / 2);
            marker.ellipse.y += sign * across.y * (kind.minorHalfAxis() + kGap / 2);
            scene.markers.push_back(marker);
        }
        return;
    }
    TrueMarker marker{ellipse, {1, 0}};
    const cv::Point2d outwards = centre - scene.light.middle;
    if (kind.slope != 0) marker.direction = normalised(scene.light.slope);
    if ((kind.bowl != 0 || kind.k1 != 0) && outwards != cv::Point2d()) marker.direction = normalised(outwards);
    if (kind.cover != Cover::none) cover(scene, marker, random);
    scene.markers.push_back(marker);
}

cv::Rect within(const cv::Rect2d& box, double reach, const cv::Size& size) {
    const cv::Point first(static_cast<int>(std::floor(box.x - reach)), static_cast<int>(std::floor(box.y - reach)));
    const cv::Point end(static_cast<int>(std::ceil(box.x + box.width + reach)) + 1,
                        static_cast<int>(std::ceil(box.y + box.height + reach)) + 1);
    return cv::Rect(first, end) & cv::Rect({}, size);
}

cv::Rect2d boxOf(const Outline& outline) {
    cv::Point2d low(outline.front().x, outline.front().y), high = low;
    for (const OutlineStep& node : outline) {
        low = {std::min(low.x, node.x), std::min(low.y, node.y)};
        high = {std::max(high.x, node.x), std::max(high.y, node.y)};
    }
    return {low, high};
}

void addTo(cv::Mat1d& image, const Outline& outline, const Blur& blur, double amount) {
    const cv::Rect window = within(boxOf(outline), reachOf(blur.widest()), image.size());
    cv::Mat1d part = image(window);
    addArea(part, window.tl(), outline, blur, amount);
}

cv::Mat1d meanOf(const Scene& scene, const cv::Size& size) {
    const Kind& kind = scene.kind;
    const double step = kind.inside() - kind.ground();
    cv::Mat1d image(size, kind.ground());
    for (const TrueMarker& marker : scene.markers)
        addTo(image, outlineOf(marker.ellipse, marker.covered, scene.lens, scene.blur.sigma), scene.blur, step);
    for (const auto& corners : scene.covers) {
        // Corners may run either way round.
        double area = 0;
        for (std::size_t k = 0; k < corners.size(); ++k) area += corners[k].cross(corners[(k + 1) % corners.size()]);
        addTo(image, outlineOf(corners, scene.blur.sigma), scene.blur, (area > 0 ? 1 : -1) * kThirdLevel * step);
    }
    for (int y = 0; y < size.height; ++y)
        for (int x = 0; x < size.width; ++x) image(y, x) *= scene.light(x, y);
    return image;
}

}  // namespace

cv::Mat Scene::cameraMatrix() const {
    if (!lens) return {};
    return (cv::Mat_<double>(3, 3) << lens->focal, 0, lens->middle.x, 0, lens->focal, lens->middle.y, 0, 0, 1);
}

cv::Mat Scene::distortion() const {
    if (!lens) return {};
    return (cv::Mat_<double>(1, 5) << lens->k1, 0, 0, 0, 0);
}

cv::Rect Scene::windowOf(const Ellipse& ellipse) const {
    return within(boxOf(outlineOf(ellipse, {}, lens, blur.sigma)), reachOf(blur.widest()), mean.size());
}

Scene makeScene(const Kind& kind, int most, std::mt19937_64& random) {
    Scene scene{.kind = kind,
                .blur = {kind.blur, kind.halo},
                .light = {},
                .lens = {},
                .markers = {},
                .covers = {},
                .mean = {},
                .image = {}};
    const Grid grid = gridFor(kind, scene.blur);
    const cv::Size size = grid.size();
    const cv::Point2d middle(0.5 * (size.width - 1), 0.5 * (size.height - 1));
    scene.light = {middle, unit(uniform(random, 0, 2 * std::numbers::pi)) * kind.slope, kind.bowl};
    if (kind.k1 != 0) scene.lens = Lens{kind.k1, kFocal, middle};
    for (int k = 0; k < grid.side * grid.side && static_cast<int>(scene.markers.size()) < most; ++k)
        addMarkers(scene, grid.middleOf(k), random);
    scene.mean = meanOf(scene, size);
    scene.image = exposed(scene.mean, {kind.noise, kind.shot}, kind.bits, random);
    return scene;
}

}  // namespace kestrune::bench
