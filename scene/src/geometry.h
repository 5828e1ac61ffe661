// SPDX-License-Identifier: Apache-2.0
//
// What the renderer's own files share: rims as polygons, the way back from a pixel to a ray, and random streams.
#pragma once

#include <cstdint>
#include <opencv2/core.hpp>
#include <vector>

#include "kestrune_scene/scene.h"

namespace kestrune::scene {

/// A marker counts as visible only this far inside the image, px: four sigma of a point spread of one pixel, and four
/// more pixels of plain background.
inline constexpr double kVisibleMargin = 8;

/// Two unit vectors that complete `normal` to an orthonormal basis.
struct PlaneBasis {
    cv::Vec3d u, v;
};
PlaneBasis planeBasis(const cv::Vec3d& normal);

/// The rim of a disc as the camera sees it through its lens, px. Empty where no image of the whole rim exists: a part
/// of it is behind the camera or beyond the radius at which the distortion folds back.
std::vector<cv::Point2d> rimPolygon(const PinholeCamera& camera, const Disc& disc, int vertices);

/// Whether the printed side of the disc is turned towards the camera.
bool facesCamera(const PinholeCamera& camera, const Disc& disc);

/// Direction, in the camera's frame and with z = 1, that the lens images at `pixel`.
cv::Vec3d rayOfPixel(const PinholeCamera& camera, cv::Point2d pixel);

/// Generator number `stream` of a seed. Seeds that differ in one bit give unrelated sequences.
cv::RNG randomStream(std::uint64_t seed, std::uint64_t stream);

}  // namespace kestrune::scene
