// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <opencv2/calib3d.hpp>
#include <opencv2/imgproc.hpp>

#include <kestrune/MarkerMetrology/discs.h>
#include <kestrune/MarkerMetrology/refinement.h>
#include "kestrune_geometry/smooth_ellipse.h"
#include "support/rigs.h"

namespace kestrune::test {

using geometry::SmoothEllipse;
using Covariance = cv::Matx<double, 8, 8>;

inline MarkerEstimate estimateOf(const SmoothEllipse& e, const Covariance& covariance = 1e-4 * Covariance::eye()) {
    MarkerEstimate estimate;
    estimate.status = RefinementStatus::refined, estimate.covariance = covariance;
    estimate.centre = {e.x, e.y}, estimate.majorHalfAxis = e.majorHalfAxis(), estimate.minorHalfAxis = e.minorHalfAxis();
    estimate.angle = e.angle();
    return estimate;
}

inline SmoothEllipse ellipseOf(const MarkerEstimate& e) {
    return SmoothEllipse::of(e.centre, e.majorHalfAxis, e.minorHalfAxis, e.angle);
}
inline SmoothEllipse ellipseOf(const scene::EllipseTruth& t) {
    return SmoothEllipse::of(t.centre, t.majorHalfAxis, t.minorHalfAxis, t.angle);
}

using Five = cv::Vec<double, 5>;
inline Five numbersOf(const SmoothEllipse& e) {
    return {e.x, e.y, e.s, e.e1, e.e2};
}
inline SmoothEllipse ellipseOf(const Five& v) {
    return {v[0], v[1], v[2], v[3], v[4]};
}

/// What the lens makes of a rim in pixels without distortion, by OpenCV.
inline std::vector<cv::Point2d> imagedRim(const SmoothEllipse& e, const Camera& camera, int count) {
    const cv::Matx33d back = cv::Matx33d(camera.matrix).inv();
    std::vector<cv::Point3d> rays;
    for (int k = 0; k < count; ++k) {
        const cv::Point2d p = e.at(2 * CV_PI * k / count);
        rays.emplace_back(back * cv::Vec3d(p.x, p.y, 1));
    }
    std::vector<cv::Point2d> image;
    cv::projectPoints(rays, cv::Vec3d(), cv::Vec3d(), camera.matrix, camera.distortion, image);
    return image;
}

/// The ellipse with the least squares of distances to the points, each weighed by its share of the rim's length.
inline SmoothEllipse fittedEllipse(const std::vector<cv::Point2d>& points) {
    const std::vector<cv::Point2f> single(points.begin(), points.end());
    SmoothEllipse e = SmoothEllipse::of(cv::fitEllipse(single));
    const int count = static_cast<int>(points.size());
    for (int step = 0; step < 12; ++step) {
        cv::Mat_<double> design(count, 5), distances(count, 1), move;
        for (int k = 0; k < count; ++k) {
            const auto at = [&](int n) { return points[static_cast<std::size_t>((n + count) % count)]; };
            const double d = e.s * e.s - e.e1 * e.e1 - e.e2 * e.e2, x = at(k).x - e.x, y = at(k).y - e.y;
            double u = std::atan2(((e.s + e.e1) * y - e.e2 * x) / d, ((e.s - e.e1) * x - e.e2 * y) / d);
            cv::Point2d off, along;
            for (int turn = 0; turn < 6; ++turn) {
                off = at(k) - e.at(u), along = e.at(u + CV_PI / 2) - cv::Point2d(e.x, e.y);
                u += off.dot(along) / (along.dot(along) + off.dot(e.at(u) - cv::Point2d(e.x, e.y)));
            }
            const cv::Point2d n = cv::Point2d(along.y, -along.x) / cv::norm(along);
            const double weight = std::sqrt(cv::norm(at(k + 1) - at(k - 1))), c = std::cos(u), s = std::sin(u);
            const double row[] = {n.x, n.y, n.x * c + n.y * s, n.x * c - n.y * s, n.x * s + n.y * c};
            for (int j = 0; j < 5; ++j) design(k, j) = weight * row[j];
            distances(k) = weight * off.dot(n);
        }
        cv::solve(design, distances, move, cv::DECOMP_QR);
        e = ellipseOf(numbersOf(e) + Five(move.ptr<double>()));
    }
    return e;
}

/// Pixels without lens distortion.
inline RigMatrices idealRig(const scene::Rig& rig) {
    RigMatrices result{{}, cv::Mat(rig.right.rotation).clone(), cv::Mat(rig.right.translation).clone()};
    result.cameras[0].matrix = cv::Mat(rig.left.intrinsic).clone(), result.cameras[1].matrix = cv::Mat(rig.right.intrinsic).clone();
    return result;
}

}  // namespace kestrune::test
