// SPDX-License-Identifier: Apache-2.0
#include "MarkerExtractor/camera/rectify.h"

#include <Eigen/LU>
#include <algorithm>
#include <cmath>
#include <opencv2/calib3d.hpp>

#include "MarkerExtractor/camera/calibration_check.h"
#include "MarkerExtractor/camera/undistort.h"
#include "kestrune/MarkerExtractor.h"

namespace kestrune {

namespace {

constexpr double kPi = 3.141592653589793;
/// Pi in single precision. The angle is brought into range with this one and turned into degrees with the other; stored
/// measurements hold angles made so, and the difference shows in their last digit.
constexpr double kSinglePi = 3.1415927410125732;
constexpr double kLeastCoefficient = 1e-10;  ///< a quadratic coefficient below it makes no axis

/// Conic in the image that the inverse homography `back` maps to the conic's own: back^T C back.
cv::Mat mapConic(const std::array<double, 6>& conic, const cv::Mat& back) {
    const auto& [A, B, C, D, E, F] = conic;
    const cv::Mat matrix = (cv::Mat_<double>(3, 3) << A, 0.5 * B, 0.5 * D, 0.5 * B, C, 0.5 * E, 0.5 * D, 0.5 * E, F);
    return back.t() * matrix * back;
}

void rectifyConic(const std::array<double, 6>& conic, const cv::Mat& back, Corner& target) {
    const cv::Mat m = mapConic(conic, back);
    const auto at = [&m](int row, int column) { return m.at<double>(row, column); };
    const EllipseParams e =
        conicToEllipse(at(0, 0), at(0, 1) + at(1, 0), at(1, 1), at(2, 0) + at(0, 2), at(2, 1) + at(1, 2), at(2, 2));
    target.ellipse = cv::RotatedRect(cv::Point2f(e.centerX, e.centerY), cv::Size2f(e.width, e.height), e.angle);
    target.x = e.centerX;
    target.y = e.centerY;
}

}  // namespace

EllipseParams conicToEllipse(double A, double B, double C, double D, double E, double F) {
    EllipseParams result{};
    Eigen::Matrix2d quadratic;
    quadratic << 2 * A, B, B, 2 * C;
    const Eigen::FullPivLU<Eigen::Matrix2d> solver(quadratic);
    if (solver.rank() == 2) {
        const Eigen::Vector2d centre = solver.solve(Eigen::Vector2d(-D, -E));
        result.centerX = static_cast<float>(centre.x());
        result.centerY = static_cast<float>(centre.y());
    }
    const double x = result.centerX;
    const double y = result.centerY;
    const double v = (x * B) * y + (x * A) * x + (y * C) * y - F;  // minus the conic's value at its centre
    const double sign = v > 0.0 ? 1.0 : -1.0;

    double phi = 0.5 * std::atan2(sign * B, (A - C) * sign);
    if (phi < 0.0) phi += kSinglePi;
    if (phi >= kSinglePi) phi -= kSinglePi;
    result.angle = static_cast<float>(phi * 180.0 / kPi);

    const double c = std::cos(phi);
    const double s = std::sin(phi);
    const double alongPhi = c * A * c + (c * B) * s + s * C * s;
    const double acrossPhi = s * A * s - (c * B) * s + c * C * c;
    if (std::abs(alongPhi) <= kLeastCoefficient || std::abs(acrossPhi) <= kLeastCoefficient) return result;
    result.width = static_cast<float>(2 * std::sqrt(std::abs(v / alongPhi)));
    result.height = static_cast<float>(2 * std::sqrt(std::abs(v / acrossPhi)));
    return result;
}

void CircleMarkerExtractor::StereoRectifyCorners(const std::vector<Corner>& source, std::vector<Corner>& target,
                                                 const cv::Mat& cameraMatrix, const cv::Mat& distCoeffs,
                                                 const cv::Mat& rectification, const cv::Mat& projection,
                                                 const cv::Mat& homography) {
    if (std::any_of(source.begin(), source.end(), [](const Corner& corner) { return corner.conicValid; })) {
        requireMatrix(homography, 3, 3, "homography");
    }
    const cv::Mat back = homography.inv(cv::DECOMP_LU);
    if (&target != &source) target = source;
    for (std::size_t i = 0; i < source.size(); ++i) {
        cv::Mat points = packPoints(source[i]);
        cv::undistortPoints(points, points, cameraMatrix, distCoeffs, rectification, projection);
        unpackPoints(points, target[i]);
        if (source[i].conicValid) rectifyConic(source[i].conic, back, target[i]);
    }
}

}  // namespace kestrune
