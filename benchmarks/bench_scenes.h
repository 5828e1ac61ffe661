// SPDX-License-Identifier: Apache-2.0
//
// The images that everything is measured on, and how well a list of centres answers them.
#pragma once

#include <kestrune_scene/scene.h>

#include <opencv2/core.hpp>
#include <vector>

namespace kestrune::bench {

/// Bounds of the markers' radii in the image, px. The settings of all candidates are chosen for them.
constexpr double kMinRadiusPx = 6;
constexpr double kMaxRadiusPx = 40;

constexpr double kBackgroundGrey = 40;
constexpr double kDiscGrey = 180;

struct BenchScene {
    cv::Mat image;  ///< CV_8UC1, the left eye; no lens distortion, so that every candidate works in the same pixels
    cv::Mat right;
    scene::Rig rig;
    std::vector<scene::MarkerTruth> markers;
};

/// Renders the scene on first use and keeps it until the process ends.
///
/// @throws std::runtime_error  if not all of the markers find a place on the image.
const BenchScene& cachedScene(cv::Size size, int markers);

struct Quality {
    double recall;     ///< share of the visible markers that were found
    double falseOnes;  ///< centres that belong to no marker
    double centreRms;  ///< px, over the found ones
};

Quality judge(const BenchScene& scene, const std::vector<cv::Point2d>& centres);

}  // namespace kestrune::bench
