// SPDX-License-Identifier: Apache-2.0
//
// The displacement formula is that of S. J. Ahn, H.-J. Warnecke and R. Kotowski, "Systematic geometric image
// measurement errors of circular object targets: mathematical formulation and correction", Photogrammetric Record 16
// (93), 1999; the normal comes from the eigenvalues of the viewing cone, as in the usual pose of a circle from its
// image.
#include "MarkerExtractor/camera/eccentricity.h"

#include <Eigen/Core>
#include <Eigen/Eigenvalues>
#include <array>
#include <cmath>
#include <limits>
#include <numbers>
#include <opencv2/imgproc.hpp>
#include <optional>

#include "MarkerExtractor/camera/calibration_check.h"
#include "checks/fixed_text.h"
#include "checks/settings_check.h"
#include "kestrune/MarkerExtractor.h"

namespace kestrune {

namespace {

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();

// Where the normal is written: left of the marker and below it, so that it does not cover the marker.
constexpr float kTextShiftX = -150.0f;
constexpr float kTextShiftY = 20.0f;
constexpr double kTextScale = 0.6;
/// A text that begins farther away than this touches no image, and its place is not sure to be an integer.
constexpr float kFarthestText = 1e9f;

/// Matrix of the cone over the ellipse, which is taken at the principal point wherever it lies on the image. The mixed
/// coefficient stands in it whole and not halved. Geometry would have it otherwise: both are part of what this measure
/// is defined as (docs/eccentricity.md). So are the operands, which the ellipse's conic elsewhere has in another order
/// and precision.
Eigen::Matrix3d coneOf(const cv::RotatedRect& ellipse, double f) {
    const double theta = static_cast<double>(ellipse.angle / 180.0f) * std::numbers::pi;
    const double s = std::sin(theta);
    const double c = std::cos(theta);
    const double a = 0.5f * ellipse.size.width;
    const double b = 0.5f * ellipse.size.height;
    const double A = s * s / (b * b) + c * c / (a * a);
    const double B = (1 / (a * a) - 1 / (b * b)) * (2 * s * c);
    const double C = s * s / (a * a) + c * c / (b * b);
    constexpr double D = 0;
    constexpr double E = 0;
    constexpr double F = -1;
    Eigen::Matrix3d cone;
    cone << A, B, -D / f, B, C, -E / f, -D / f, -E / f, F / (f * f);
    return cone;
}

/// Positions of the eigenvalues in their roles: two of one sign, the larger magnitude first, then the odd one out. None
/// if all have one sign. Zero counts as not positive, and of equal magnitudes the higher position comes first.
std::optional<std::array<int, 3>> rolesOf(const Eigen::Vector3d& values) {
    const bool positive[] = {values[0] > 0.0, values[1] > 0.0, values[2] > 0.0};
    std::array<int, 3> roles{};
    if (positive[0] == positive[1]) {
        if (positive[2] == positive[0]) return std::nullopt;
        roles = {0, 1, 2};
    } else if (positive[0] == positive[2]) {
        roles = {0, 2, 1};
    } else {
        roles = {1, 2, 0};
    }
    if (!(std::abs(values[roles[0]]) > std::abs(values[roles[1]]))) std::swap(roles[0], roles[1]);
    return roles;
}

/// Normal of the circle's plane. Of the two planes that cut the cone in a circle the one with +h is taken only where
/// the other's normal has a negative third component; nothing turns a normal round afterwards.
std::optional<Eigen::Vector3d> normalOf(const Eigen::Matrix3d& cone) {
    const Eigen::SelfAdjointEigenSolver<Eigen::Matrix3d> solver(cone, Eigen::ComputeEigenvectors);
    const std::optional<std::array<int, 3>> roles = rolesOf(solver.eigenvalues());
    if (!roles) return std::nullopt;
    const double lambda1 = solver.eigenvalues()[(*roles)[0]];
    const double lambda2 = solver.eigenvalues()[(*roles)[1]];
    const double lambda3 = solver.eigenvalues()[(*roles)[2]];
    // Each row is one eigenvector in the solver's order, with its components in the order of the roles. Geometry would
    // have the eigenvectors as columns, in the order of the roles; this layout is part of the measure as well.
    Eigen::Matrix3d layout;
    for (int r = 0; r < 3; ++r) {
        for (int c = 0; c < 3; ++c) layout(r, c) = solver.eigenvectors()((*roles)[static_cast<std::size_t>(c)], r);
    }
    const double g = std::sqrt((lambda1 - lambda2) / (lambda1 - lambda3));
    const double h = std::sqrt((lambda2 - lambda3) / (lambda1 - lambda3));
    const Eigen::Vector3d normal = layout * Eigen::Vector3d(g, 0, -h);
    if (normal[2] < 0.0) return layout * Eigen::Vector3d(g, 0, h);
    return normal;
}

/// The circle's centre against the plane that holds the normal and the optical axis.
struct Split {
    Eigen::Vector3d inPlane;
    double across;  ///< distance of the centre from that plane
};

Split splitPosition(const Eigen::Vector3d& position, const Eigen::Vector3d& normal) {
    const Eigen::Vector3d across(normal[1], -normal[0], 0);
    const double t = -across.dot(position) / across.dot(across);
    const Eigen::Vector3d inPlane = position + t * across;
    return {inPlane, (position - inPlane).norm()};
}

/// Angle from the normal to the in-plane part of the position, 0 to two pi. Which half turn it lies in hangs on a
/// number that is zero but for rounding, because the part lies in a plane with the normal and the axis.
double angleFromNormal(const Eigen::Vector3d& normal, const Eigen::Vector3d& inPlane) {
    const double beta = std::atan2(normal.cross(inPlane).norm(), normal.dot(inPlane));
    return normal[0] * inPlane[1] - normal[1] * inPlane[0] < 0.0 ? 2 * std::numbers::pi - beta : beta;
}

void annotate(cv::Mat& image, const cv::Point2f& centre, const cv::Vec3d& normal) {
    const float x = centre.x + kTextShiftX;
    const float y = centre.y + kTextShiftY;
    if (image.empty() || !(std::abs(x) < kFarthestText && std::abs(y) < kFarthestText)) return;
    cv::putText(image, fixedText(normal[0], 6) + ',' + fixedText(normal[1], 6) + ',' + fixedText(normal[2], 6),
                cv::Point(static_cast<int>(x), static_cast<int>(y)), cv::FONT_HERSHEY_TRIPLEX, kTextScale,
                cv::Scalar(0, 0, 255, 0), 1, cv::LINE_8, false);
}

void requirePosition(const cv::Mat& position) {
    requireData(position, "position");
    if (position.dims == 2 && position.type() == CV_64FC1 && std::min(position.rows, position.cols) == 1 &&
        position.total() >= 3) {
        return;
    }
    refuseSetting("position", shapeText(position) + "; a row or column of three CV_64FC1 is needed");
}

}  // namespace

Eccentricity eccentricityAhn(const cv::Vec3d& position, const cv::RotatedRect& ellipse, double principalDistance,
                             double circleRadius) {
    Eccentricity nothing = {kNaN, kNaN, kNaN, {kNaN, kNaN, kNaN}};
    const double f = principalDistance;
    const Eigen::Vector3d T(position.val);
    const Eigen::Matrix3d cone = coneOf(ellipse, f);
    // Axes and f of infinite size leave a finite cone.
    const Eigen::Vector4d rest(ellipse.size.width, ellipse.size.height, f, circleRadius);
    if (!cone.allFinite() || !T.allFinite() || !rest.allFinite()) return nothing;
    const std::optional<Eigen::Vector3d> normal = normalOf(cone);
    if (!normal) return nothing;
    const Eigen::Vector3d& N = *normal;

    const auto [P, m] = splitPosition(T, N);
    const double p = P.norm();
    const double alpha = std::asin(std::abs(N[1]) / N.norm());
    const double beta = angleFromNormal(N, P);

    const double sinAlpha = std::sin(alpha);
    const double G = std::cos(alpha - beta) * p;
    const double W = (G / circleRadius) * (G / circleRadius) - sinAlpha * sinAlpha;
    const double x = (m / G) * f * sinAlpha * sinAlpha / W;
    const double y = -(std::sin(beta) * ((p / G) * f * sinAlpha)) / W;
    return {x, y, std::sqrt(y * y + x * x), {N[0], N[1], N[2]}};
}

void CircleMarkerExtractor::correctedEccentricityAhn(cv::Mat& image, cv::Mat& position, cv::RotatedRect& ellipse,
                                                     double& eccentricityX, double& eccentricityY,
                                                     double& eccentricityNorm) {
    correctedEccentricityAhn(image, position, ellipse, eccentricityX, eccentricityY, eccentricityNorm, 1.0, 1.0);
}

void CircleMarkerExtractor::correctedEccentricityAhn(cv::Mat& image, cv::Mat& position, cv::RotatedRect& ellipse,
                                                     double& eccentricityX, double& eccentricityY,
                                                     double& eccentricityNorm, double principalDistance,
                                                     double circleRadius) {
    requirePosition(position);
    requirePlane(image);
    const cv::Vec3d centre(position.at<double>(0), position.at<double>(1), position.at<double>(2));
    const Eccentricity result = eccentricityAhn(centre, ellipse, principalDistance, circleRadius);
    eccentricityX = result.x;
    eccentricityY = result.y;
    eccentricityNorm = result.norm;
    annotate(image, ellipse.center, result.normal);
}

}  // namespace kestrune
