// SPDX-License-Identifier: Apache-2.0
#include "ellipsedetection/conic_record.h"

#include <cmath>

namespace kestrune {

namespace {

constexpr double kPi = 3.141592653589793;

// The operand order is part of the result's last bits, which stored measurements are compared with.
std::array<double, 6> conicOf(const cv::RotatedRect& rect) {
    const auto alpha = static_cast<float>(0.5 * rect.size.width);
    const auto beta = static_cast<float>(0.5 * rect.size.height);
    const auto theta = static_cast<float>(rect.angle * kPi / 180.0);
    const float s = std::sin(theta);
    const float c = std::cos(theta);
    const float s2 = s * s;
    const float c2 = c * c;
    const float alpha2 = alpha * alpha;
    const float beta2 = beta * beta;
    const double cx = rect.center.x;
    const double cy = rect.center.y;

    const double A = c2 / alpha2 + s2 / beta2;
    const double B = (1.0 / alpha2 - 1.0 / beta2) * (2.0 * s * c);
    const double C = s2 / alpha2 + c2 / beta2;
    const double D = -2.0 * A * cx - cy * B;
    const double E = -B * cx - 2.0 * C * cy;
    const double F = cx * B * cy + cx * A * cx + cy * C * cy - 1.0;
    return {A, B, C, D, E, F};
}

template <typename Point>
double residualOf(const std::array<double, 6>& conic, const std::vector<Point>& points) {
    const auto& [A, B, C, D, E, F] = conic;
    double sum = 0;
    for (const Point& point : points) {
        const double x = point.x;
        const double y = point.y;
        const double value = A * x * x + B * x * y + C * y * y + D * x + E * y + F;
        sum += value * value;
    }
    return std::sqrt(sum / static_cast<double>(points.size()));
}

}  // namespace

void fitConicFromEllipse(EllipseRecord& record, const cv::RotatedRect& rect, double residual,
                         const std::vector<cv::Point2f>& points) {
    record.ellipse = rect;
    record.fitResidual = residual;
    record.conic = conicOf(rect);
    record.conicValid = true;
    record.scatter.resize(0, 0);
    if (points.empty()) return;

    record.fitResidual = residualOf(record.conic, points);
    Eigen::MatrixXd design(static_cast<Eigen::Index>(points.size()), 6);
    Eigen::Index row = 0;
    for (const cv::Point2f& point : points) {
        // The products of the first three columns are rounded to single precision first.
        design.row(row++) << point.x * point.x, point.y * point.x, point.y * point.y, point.x, point.y, 1.0;
    }
    record.scatter.noalias() = design.transpose() * design;
}

void fitConicToPixels(EllipseRecord& record, const cv::RotatedRect& rect, const std::vector<cv::Point>& pixels) {
    fitConicFromEllipse(record, rect, 0, {});
    record.fitResidual = residualOf(record.conic, pixels);
}

}  // namespace kestrune
