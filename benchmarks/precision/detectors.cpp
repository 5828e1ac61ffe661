// SPDX-License-Identifier: Apache-2.0
#include "detectors.h"

#include <fmt/format.h>

#include <algorithm>
#include <numbers>
#include <opencv2/imgproc.hpp>

namespace kestrune::bench {
namespace {

constexpr int kContourPoints = 64;

// What is left of a half axis that noise would make nothing of.
constexpr double kLeastShare = 0.3;

Corner cornerOf(const Ellipse& ellipse) {
    const double degrees = ellipse.angle() * 180 / std::numbers::pi;
    Corner corner;
    corner.x = ellipse.x, corner.y = ellipse.y;
    corner.ellipse = cv::RotatedRect(cv::Point2f(ellipse.centre()),
                                     {static_cast<float>(2 * ellipse.major()), static_cast<float>(2 * ellipse.minor())},
                                     static_cast<float>(degrees));
    for (int k = 0; k < kContourPoints; ++k)
        corner.contour.emplace_back(ellipse.at(2 * std::numbers::pi * k / kContourPoints));
    const double c = std::cos(ellipse.angle()), s = std::sin(ellipse.angle());
    const double p = 1 / (ellipse.major() * ellipse.major()), q = 1 / (ellipse.minor() * ellipse.minor());
    const double A = p * c * c + q * s * s, B = 2 * (p - q) * c * s, C = p * s * s + q * c * c;
    const double x = ellipse.x, y = ellipse.y;
    corner.conic = {A, B, C, -2 * A * x - B * y, -B * x - 2 * C * y, A * x * x + B * x * y + C * y * y - 1};
    corner.conicValid = true;
    return corner;
}

double meanHalfAxisOf(const Corner& corner) {
    const double nothing = std::numeric_limits<double>::quiet_NaN();
    if (corner.conicValid) return 0.25 * (corner.ellipse.size.width + corner.ellipse.size.height);
    if (corner.contour.size() < 5) return nothing;
    const cv::RotatedRect ellipse = cv::fitEllipse(corner.contour);
    return 0.25 * (ellipse.size.width + ellipse.size.height);
}

}  // namespace

Findings findingsOf(const Scene& scene, const std::vector<Corner>& corners, bool isUndistorted) {
    Findings findings;
    for (const Corner& corner : corners) {
        const cv::Point2d centre(corner.x, corner.y);
        findings.found.push_back({.centre = scene.lens && !isUndistorted ? scene.lens->inverse(centre) : centre,
                                  .meanHalfAxis = meanHalfAxisOf(corner)});
    }
    RefinementOptions options;
    const Camera camera{scene.cameraMatrix(), scene.distortion(), scene.image.size()};
    if (isUndistorted) options.camera = camera;
    for (const MarkerEstimate& estimate : refineMarkers(scene.image, corners, options)) {
        const MarkerEstimate final = scene.lens ? undistorted(estimate, camera) : estimate;
        findings.refined.push_back({.centre = final.centre,
                                    .meanHalfAxis = 0.5 * (final.majorHalfAxis + final.minorHalfAxis),
                                    .estimate = final});
    }
    return findings;
}

Detector perturbedTruth(double error) {
    return {fmt::format("truth +- {:g} px", error), [error](const Scene& scene, std::mt19937_64& random) {
                std::normal_distribution<double> normal(0, error);
                std::vector<Corner> corners;
                for (const TrueMarker& marker : scene.markers) {
                    Ellipse start = marker.ellipse;
                    for (double* const number : {&start.x, &start.y, &start.s, &start.e1, &start.e2})
                        *number += normal(random);
                    const double least = kLeastShare * marker.ellipse.minor();
                    if (start.minor() < least) start.s += least - start.minor();
                    corners.push_back(cornerOf(start));
                }
                return findingsOf(scene, corners, scene.lens.has_value());
            }};
}

}  // namespace kestrune::bench
