// SPDX-License-Identifier: Apache-2.0
#include "refinement/lens_model.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace kestrune {
namespace {

constexpr double kNoPlace = std::numeric_limits<double>::quiet_NaN();
// The way back converges by the square; a strong lens near the edge of its field takes six steps.
constexpr int kMostInverseSteps = 25;
constexpr double kLeastInverseStep = 1e-13;  // in units of the focal length: 1e-9 px
// Places between axis and pixel at which the lens is asked whether it folds.
constexpr int kFoldChecks = 6;

/// The sensor's tilt about x and y as a map of the image plane onto itself.
cv::Matx33d tiltOf(double aboutX, double aboutY) {
    const double cx = std::cos(aboutX), sx = std::sin(aboutX), cy = std::cos(aboutY), sy = std::sin(aboutY);
    const cv::Matx33d turn = cv::Matx33d(cy, 0, -sy, 0, 1, 0, sy, 0, cy) * cv::Matx33d(1, 0, 0, 0, cx, sx, 0, -sx, cx);
    return cv::Matx33d(turn(2, 2), 0, -turn(0, 2), 0, turn(2, 2), -turn(1, 2), 0, 0, 1) * turn;
}

}  // namespace

LensModel::LensModel(const Camera& camera) : pinhole_(geometry::Pinhole::of(camera.matrix)) {
    const auto count = static_cast<int>(camera.distortion.total());
    for (int k = 0; k < count; ++k) k_[static_cast<std::size_t>(k)] = camera.distortion.at<double>(k);
    const auto isZero = [](double value) { return value == 0; };
    isIdeal_ = std::ranges::all_of(k_, isZero);
    isRational_ = !std::all_of(k_.begin() + 5, k_.begin() + 8, isZero);
    isTilted_ = !std::all_of(k_.begin() + 12, k_.end(), isZero);
    if (isTilted_) tilt_ = tiltOf(k_[12], k_[13]);
}

inline LensPoint LensModel::tilted(const LensPoint& p) const {
    const auto& m = tilt_;
    const double w = 1 / (m(2, 0) * p.x + m(2, 1) * p.y + m(2, 2));
    const double x = w * (m(0, 0) * p.x + m(0, 1) * p.y + m(0, 2));
    const double y = w * (m(1, 0) * p.x + m(1, 1) * p.y + m(1, 2));
    const double xx = w * (m(0, 0) - x * m(2, 0)), xy = w * (m(0, 1) - x * m(2, 1));
    const double yx = w * (m(1, 0) - y * m(2, 0)), yy = w * (m(1, 1) - y * m(2, 1));
    return {x, y, xx * p.xx + xy * p.yx, xx * p.xy + xy * p.yy, yx * p.xx + yy * p.yx, yx * p.xy + yy * p.yy};
}

LensPoint LensModel::distorted(double x, double y) const {
    const auto& [k1, k2, p1, p2, k3, k4, k5, k6, s1, s2, s3, s4, tiltX, tiltY] = k_;
    const double r2 = x * x + y * y;
    double g = 1 + r2 * (k1 + r2 * (k2 + r2 * k3));
    double slope = k1 + r2 * (2 * k2 + r2 * 3 * k3);  // of g, by r2
    if (isRational_) {
        const double inverse = 1 / (1 + r2 * (k4 + r2 * (k5 + r2 * k6)));
        g *= inverse;
        slope = inverse * (slope - g * (k4 + r2 * (2 * k5 + r2 * 3 * k6)));
    }
    const double prismX = 2 * (s1 + 2 * s2 * r2), prismY = 2 * (s3 + 2 * s4 * r2);
    const double across = 2 * x * y * slope + 2 * (p1 * x + p2 * y);
    const LensPoint p{x * g + 2 * p1 * x * y + p2 * (r2 + 2 * x * x) + r2 * (s1 + s2 * r2),
                      y * g + p1 * (r2 + 2 * y * y) + 2 * p2 * x * y + r2 * (s3 + s4 * r2),
                      g + 2 * x * x * slope + 2 * p1 * y + 6 * p2 * x + x * prismX,
                      across + y * prismX,
                      across + x * prismY,
                      g + 2 * y * y * slope + 6 * p1 * y + 2 * p2 * x + y * prismY};
    return isTilted_ ? tilted(p) : p;
}

cv::Point2d LensModel::distortedPixel(const cv::Point2d& pixel) const {
    const auto& [k1, k2, p1, p2, k3, k4, k5, k6, s1, s2, s3, s4, tiltX, tiltY] = k_;
    const auto [x, y] = pinhole_.normalised(pixel);
    if (isTilted_) {
        const LensPoint p = distorted(x, y);
        return {pinhole_.fx * p.x + pinhole_.cx, pinhole_.fy * p.y + pinhole_.cy};
    }
    const double r2 = x * x + y * y;
    double g = 1 + r2 * (k1 + r2 * (k2 + r2 * k3));
    if (isRational_) g /= 1 + r2 * (k4 + r2 * (k5 + r2 * k6));
    const double u = x * g + 2 * p1 * x * y + p2 * (r2 + 2 * x * x) + r2 * (s1 + s2 * r2);
    const double v = y * g + p1 * (r2 + 2 * y * y) + 2 * p2 * x * y + r2 * (s3 + s4 * r2);
    return {pinhole_.fx * u + pinhole_.cx, pinhole_.fy * v + pinhole_.cy};
}

LensPoint LensModel::distortedWithDerivatives(const cv::Point2d& pixel) const {
    const cv::Point2d ray = pinhole_.normalised(pixel);
    LensPoint p = distorted(ray.x, ray.y);
    p.x = pinhole_.fx * p.x + pinhole_.cx;
    p.y = pinhole_.fy * p.y + pinhole_.cy;
    p.xy *= pinhole_.fx / pinhole_.fy;
    p.yx *= pinhole_.fy / pinhole_.fx;
    return p;
}

cv::Point2d LensModel::undistortedPixel(const cv::Point2d& pixel) const {
    const cv::Point2d wanted = pinhole_.normalised(pixel);
    cv::Point2d ray = wanted;
    for (int step = 0; step < kMostInverseSteps; ++step) {
        const LensPoint p = distorted(ray.x, ray.y);
        const double dx = wanted.x - p.x, dy = wanted.y - p.y, determinant = p.determinant();
        if (!p.keepsOrder()) break;
        const cv::Point2d move((p.yy * dx - p.xy * dy) / determinant, (p.xx * dy - p.yx * dx) / determinant);
        ray += move;
        if (std::abs(move.x) + std::abs(move.y) <= kLeastInverseStep * (1 + std::abs(ray.x) + std::abs(ray.y)))
            return {pinhole_.fx * ray.x + pinhole_.cx, pinhole_.fy * ray.y + pinhole_.cy};
    }
    return {kNoPlace, kNoPlace};
}

bool LensModel::isWithinFold(const cv::Point2d& pixel) const {
    const cv::Point2d ray = pinhole_.normalised(pixel);
    for (int k = 1; k <= kFoldChecks; ++k) {
        const double share = static_cast<double>(k) / kFoldChecks;
        if (!distorted(share * ray.x, share * ray.y).keepsOrder()) return false;
    }
    return true;
}

}  // namespace kestrune
