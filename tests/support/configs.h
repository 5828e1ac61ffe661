// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cmath>
#include <opencv2/imgproc.hpp>

#include "kestrune/MarkerExtractor.h"

namespace kestrune::test {

/// Settings under which a plain bright disc passes every gate.
inline CicrleConfigs discConfigs(bool radial) {
    CicrleConfigs c{};
    c.minArea = 20;
    c.maxArea = 1e6;
    c.minContourSize = 12;
    c.maxCircularity = 2;
    c.maxConvexRatio = 2;
    c.maxEccentricity = 0.8;
    c.maxFitError = 0.5;
    c.maxPointError = 1.0;
    c.markerName = "dot";
    c.cannyLow = 10;
    c.cannyHigh = 25;
    c.aperture = radial ? 21 : 5;
    c.sigma = 1.0;
    c.scale = 1;
    c.skipUndistort = true;
    c.useRadialContours = radial;
    c.thresholdC = -8;
    c.minRayRatio = 0.6f;
    c.contrast = 25;
    c.maxFitResidual = 0.2f;
    return c;
}

/// A bright disc with a smooth rim: the grey value falls over about 2 px around the radius.
inline void addDisc(cv::Mat& image, cv::Point2d centre, double radius, double inside = 200, double outside = 40) {
    for (int y = 0; y < image.rows; ++y) {
        for (int x = 0; x < image.cols; ++x) {
            const double distance = std::hypot(x - centre.x, y - centre.y);
            if (distance > radius + 4) continue;
            const double share = 0.5 * std::erfc((distance - radius) / 1.2);
            image.at<uchar>(y, x) = cv::saturate_cast<uchar>(outside + share * (inside - outside));
        }
    }
}

inline cv::Mat discImage(cv::Size size, cv::Point2d centre, double radius, double inside = 200, double outside = 40) {
    cv::Mat image(size, CV_8UC1, cv::Scalar(outside));
    addDisc(image, centre, radius, inside, outside);
    return image;
}

/// The argument that a call is refused for, "OpenCV" for an exception of OpenCV's own, nothing if it goes through.
template <typename Call>
std::string refusal(const Call& call) {
    try {
        call();
    } catch (const cv::Exception& e) {
        return e.code == cv::Error::StsBadArg ? e.err.substr(0, e.err.find(':')) : "OpenCV";
    }
    return "";
}

}  // namespace kestrune::test
