// SPDX-License-Identifier: Apache-2.0
//
// Markers of one kind in one image, at random places on a grid.
#pragma once

#include <optional>
#include <random>
#include <vector>

#include "kinds.h"
#include "picture.h"

namespace kestrune::bench {

struct TrueMarker {
    Ellipse ellipse;        ///< px without lens distortion
    cv::Point2d direction;  ///< unit vector of what is uneven about it: towards the light, a neighbour, what covers it
    std::optional<HalfPlane> covered = {};
};

struct Scene {
    Kind kind;
    Blur blur;
    Light light;
    std::optional<Lens> lens;
    std::vector<TrueMarker> markers;
    std::vector<std::vector<cv::Point2d>> covers;  ///< outlines of what covers markers, if it has a grey of its own
    cv::Mat1d mean;                                ///< grey levels
    cv::Mat image;                                 ///< with noise

    /// Camera matrix and five distortion coefficients; empty without a lens.
    cv::Mat cameraMatrix() const, distortion() const;
    /// Window of the marker's pixels in the image.
    cv::Rect windowOf(const Ellipse& ellipse) const;
};

/// At most `most` markers of this kind, as many as an image of moderate size holds.
Scene makeScene(const Kind& kind, int most, std::mt19937_64& random);

}  // namespace kestrune::bench
