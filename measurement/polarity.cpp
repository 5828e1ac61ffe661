// SPDX-License-Identifier: Apache-2.0
#include "polarity.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <opencv2/calib3d.hpp>
#include <vector>

namespace kestrune::measure {
namespace {

// So far from the rim nothing of its slope is left in a sharp image.
constexpr double kDistancePx = 2;
// A small marker is sampled at half its size, not at its other side.
constexpr double kLeastFactor = 0.5;
constexpr int kSamples = 72;

/// Points on the ellipse that lies `distance` px outside the rim at its narrow sides.
std::vector<cv::Point2d> pointsAround(const cv::RotatedRect& rim, double distance) {
    const double least = 0.5 * std::min(rim.size.width, rim.size.height);
    const double factor = std::max(1 + distance / least, kLeastFactor);
    const double a = 0.5 * rim.size.width * factor, b = 0.5 * rim.size.height * factor, turn = rim.angle * CV_PI / 180;
    std::vector<cv::Point2d> points;
    points.reserve(kSamples);
    for (int k = 0; k < kSamples; ++k) {
        const double t = 2 * CV_PI * k / kSamples, u = a * std::cos(t), v = b * std::sin(t);
        points.emplace_back(rim.center.x + u * std::cos(turn) - v * std::sin(turn),
                            rim.center.y + u * std::sin(turn) + v * std::cos(turn));
    }
    return points;
}

/// Where the lens puts undistorted pixels.
std::vector<cv::Point2d> throughLens(const std::vector<cv::Point2d>& points, const Camera& camera) {
    const cv::Matx33d k(camera.matrix);
    std::vector<cv::Point3d> rays;
    rays.reserve(points.size());
    for (const cv::Point2d& p : points) rays.emplace_back((p.x - k(0, 2)) / k(0, 0), (p.y - k(1, 2)) / k(1, 1), 1.0);
    std::vector<cv::Point2d> seen;
    cv::projectPoints(rays, cv::Vec3d(), cv::Vec3d(), camera.matrix, camera.distortion, seen);
    return seen;
}

/// Mean of the nearest pixels, summed over the channels; those beside the image do not count.
double meanAt(const cv::Mat& image, const std::vector<cv::Point2d>& points) {
    double sum = 0;
    int count = 0;
    for (const cv::Point2d& p : points) {
        const int x = cvRound(p.x), y = cvRound(p.y);
        if (x < 0 || y < 0 || x >= image.cols || y >= image.rows) continue;
        const uchar* const pixel = image.ptr<uchar>(y) + static_cast<std::ptrdiff_t>(x) * image.channels();
        for (int channel = 0; channel < image.channels(); ++channel) sum += pixel[channel];
        ++count;
    }
    return count == 0 ? 0 : sum / count;
}

}  // namespace

Polarity polarityOf(const cv::Mat& image, const cv::RotatedRect& rim, const Camera& camera) {
    std::array<double, 2> mean{};
    for (std::size_t side = 0; side < 2; ++side) {
        std::vector<cv::Point2d> points = pointsAround(rim, side == 0 ? -kDistancePx : kDistancePx);
        if (!camera.matrix.empty()) points = throughLens(points, camera);
        mean[side] = meanAt(image, points);
    }
    if (mean[0] == mean[1]) return Polarity::unknown;
    return mean[0] > mean[1] ? Polarity::bright : Polarity::dark;
}

const char* nameOf(Polarity polarity) {
    static constexpr std::array kNames = {"", "bright", "dark"};
    return kNames[static_cast<std::size_t>(polarity)];
}

}  // namespace kestrune::measure
