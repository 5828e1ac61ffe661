// SPDX-License-Identifier: Apache-2.0
//
// What a camera sees besides markers: scratches, dust, print and edges.
#include <algorithm>
#include <cmath>
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>
#include <vector>

#include "geometry.h"
#include "kestrune_scene/scene.h"

namespace kestrune::scene {

namespace {

/// Room about a disc's image that stays plain: the ring that a contrast probe looks at, in radii, and the point spread
/// of the clutter, px.
constexpr double kClearRadii = 2;
constexpr double kClearPixels = 4;

/// Places tried for one shape before it is left out: a crowded image has room for few.
constexpr int kTries = 40;

/// Rim points of a keep-out circle.
constexpr int kKeepOutVertices = 32;

/// Every fourth shape is darker than the usual background, the others are brighter.
constexpr int kDarkEvery = 4;
constexpr double kDarkGrey[] = {5, 20};
constexpr double kBrightGrey[] = {80, 230};

struct KeepOut {
    cv::Point2d centre;
    double radius;
};

std::vector<KeepOut> keepOuts(const PinholeCamera& camera, const std::vector<Disc>& discs) {
    std::vector<KeepOut> circles;
    for (const Disc& disc : discs) {
        const std::vector<cv::Point2d> rim = rimPolygon(camera, disc, kKeepOutVertices);
        if (rim.empty()) continue;
        cv::Point2d sum;
        for (const cv::Point2d& p : rim) sum += p;
        const cv::Point2d centre = sum * (1.0 / kKeepOutVertices);
        double radius = 0;
        for (const cv::Point2d& p : rim) radius = std::max(radius, cv::norm(p - centre));
        circles.push_back({centre, kClearRadii * radius + kClearPixels});
    }
    return circles;
}

/// Outline about (0, 0) of a rectangle.
std::vector<cv::Point2d> rectangle(double length, double width) {
    return {{-length / 2, -width / 2}, {length / 2, -width / 2}, {length / 2, width / 2}, {-length / 2, width / 2}};
}

/// Outline of an L of two equal legs.
std::vector<cv::Point2d> bracket(double leg, double width) {
    return {{0, 0}, {leg, 0}, {leg, width}, {width, width}, {width, leg}, {0, leg}};
}

/// One shape about (0, 0). `unit` scales all but the finest with the image, px. Each draw is a statement of its own:
/// compilers draw the arguments of one call in orders of their own, and one seed is to be one scene everywhere.
std::vector<cv::Point2d> shape(int kind, double unit, cv::RNG& rng) {
    const double width = unit * rng.uniform(0.5, 1.5);
    switch (kind) {
        case 0: {
            const double thickness = rng.uniform(1.0, 2.5);
            return rectangle(unit * rng.uniform(5.0, 20.0), thickness);  // scratch
        }
        case 1: {
            const double height = rng.uniform(1.0, 3.0);
            return rectangle(rng.uniform(1.0, 3.0), height);  // speck
        }
        case 2:
            return rectangle(width * rng.uniform(3.2, 7.0), width);  // bar
        case 3:
            return rectangle(width * rng.uniform(3.0, 5.0), width * 2);  // box
        default:
            return bracket(width * rng.uniform(3.0, 6.0), width);  // corner
    }
}

void place(std::vector<cv::Point2d>& outline, cv::Size size, cv::RNG& rng) {
    const double angle = rng.uniform(0.0, 2 * CV_PI), c = std::cos(angle), s = std::sin(angle);
    const double y = rng.uniform(0.0, size.height - 1.0), x = rng.uniform(0.0, size.width - 1.0);
    const cv::Point2d at(x, y);
    for (cv::Point2d& p : outline) p = {at.x + c * p.x - s * p.y, at.y + s * p.x + c * p.y};
}

bool isClear(const std::vector<cv::Point2d>& outline, const std::vector<KeepOut>& circles) {
    const std::vector<cv::Point2f> polygon(outline.begin(), outline.end());
    return std::all_of(circles.begin(), circles.end(), [&](const KeepOut& circle) {
        return -cv::pointPolygonTest(polygon, circle.centre, true) > circle.radius;
    });
}

}  // namespace

std::vector<Patch> makeClutter(const Rig& rig, const std::vector<Disc>& discs, int count, std::uint64_t seed) {
    std::vector<Patch> patches;
    for (int eye = 0; eye < 2; ++eye) {
        const PinholeCamera& camera = eye == 0 ? rig.left : rig.right;
        const std::vector<KeepOut> circles = keepOuts(camera, discs);
        const double unit = std::max(2.0, 0.01 * std::min(camera.size.width, camera.size.height));
        cv::RNG rng = randomStream(seed, static_cast<std::uint64_t>(eye));
        for (int i = 0; i < count; ++i) {
            const auto& range = i % kDarkEvery == kDarkEvery - 1 ? kDarkGrey : kBrightGrey;
            const double grey = rng.uniform(range[0], range[1]);
            for (int attempt = 0; attempt < kTries; ++attempt) {
                std::vector<cv::Point2d> outline = shape(i % 5, unit, rng);
                place(outline, camera.size, rng);
                if (!isClear(outline, circles)) continue;
                patches.push_back({eye, outline, grey});
                break;
            }
        }
    }
    return patches;
}

}  // namespace kestrune::scene
