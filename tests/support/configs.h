// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <gtest/gtest.h>

#include <cmath>
#include <opencv2/imgproc.hpp>
#include <string>

#include "kestrune/MarkerExtractor.h"

namespace kestrune::test {

/// Settings under which a plain bright disc passes every gate.
inline CicrleConfigs discConfigs(bool radial) {
    CicrleConfigs c{};
    c.useRadialContours = radial, c.markerName = "dot", c.scale = 1, c.skipUndistort = true, c.sigma = 1.0, c.aperture = radial ? 21 : 5;
    c.minArea = 20, c.maxArea = 1e6, c.maxCircularity = 2, c.maxConvexRatio = 2, c.maxEccentricity = 0.8;
    c.cannyLow = 10, c.cannyHigh = 25, c.minContourSize = 12, c.maxFitError = 0.5, c.maxPointError = 1.0;
    c.thresholdC = -8, c.minRayRatio = 0.6f, c.contrast = 25, c.maxFitResidual = 0.2f;
    return c;
}

/// Settings under which a disc of either polarity comes through the edge-based path.
inline CicrleConfigs rimConfigs() {
    CicrleConfigs c{};
    c.useComplexExtract = true, c.markerName = "rim", c.scale = 1, c.skipUndistort = true, c.sigma = 1.0, c.aperture = 11, c.thresholdC = -5;
    c.maxFitResidual = 0.2f, c.minDiameter = 5, c.maxDiameter = 200, c.minAxisRatio = 0.4f, c.nmsFactor = 0.95f, c.edgePercentile = 0.8f;
    return c;
}

/// The settings of each path; its number is its place here.
inline std::vector<CicrleConfigs> configsOfPaths() {
    return {discConfigs(false), discConfigs(true), rimConfigs()};
}

inline bool same(const cv::RotatedRect& a, const cv::RotatedRect& b) {
    return a.center == b.center && a.size == b.size && a.angle == b.angle;
}

/// What a path finds.
struct Found {
    CircleMarkerExtractor extractor;
    std::vector<Corner> corners;

    Found(const cv::Mat& image, const CicrleConfigs& configs) {
        configs.useComplexExtract ? extractor.CircleExtractComplex(image, corners, 0, configs)
                                  : extractor.CircleExtractSimple(image, corners, 0, configs);
    }
};

/// An image whose pixel at `x` and `y` is what the function says of them.
template <typename Pixel, typename Function>
cv::Mat_<Pixel> imageOf(cv::Size size, const Function& function) {
    cv::Mat_<Pixel> image(size);
    for (int y = 0; y < size.height; ++y)
        for (int x = 0; x < size.width; ++x) image(y, x) = cv::saturate_cast<Pixel>(function(x, y));
    return image;
}

/// A bright disc with a smooth rim: the grey value falls over about 2 px around the radius.
inline void addDisc(cv::Mat& image, cv::Point2d centre, double radius, double inside = 200, double outside = 40) {
    image = imageOf<uchar>(image.size(), [=](int x, int y) {
        const double distance = std::hypot(x - centre.x, y - centre.y);
        const double share = 0.5 * std::erfc((distance - radius) / 1.2);
        return distance > radius + 4 ? image.at<uchar>(y, x) : outside + share * (inside - outside);
    });
}

inline cv::Mat discImage(cv::Size size, cv::Point2d centre, double radius, double inside = 200, double outside = 40) {
    cv::Mat image(size, CV_8UC1, cv::Scalar(outside));
    addDisc(image, centre, radius, inside, outside);
    return image;
}

}  // namespace kestrune::test
