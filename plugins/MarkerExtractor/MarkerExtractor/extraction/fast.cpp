// SPDX-License-Identifier: Apache-2.0
#include <algorithm>
#include <cmath>
#include <opencv2/imgproc.hpp>

#include "checks/settings_check.h"
#include "kestrune/MarkerExtractor.h"

namespace kestrune {

namespace {

constexpr double kThreshold = 100;   ///< grey level above which a pixel belongs to a marker
constexpr double kForeground = 250;  ///< its value in the binary image; any value but 0 traces alike
constexpr double kFourPi = 12.566370614359172;

using PixelContour = std::vector<cv::Point>;

bool passesArea(double area, const CicrleConfigs& configs) {
    // The upper bound is exclusive on this path and inclusive on the others.
    return !(configs.minArea > area || area >= configs.maxArea);
}

bool passesCircularity(const PixelContour& contour, double area, const CicrleConfigs& configs) {
    const double perimeter = cv::arcLength(contour, true);
    const double circularity = area * kFourPi / (perimeter * perimeter);
    return !(configs.minCircularity > circularity || circularity >= configs.maxCircularity);
}

bool passesConvexity(const PixelContour& contour, double area, PixelContour& hull, const CicrleConfigs& configs) {
    cv::convexHull(contour, hull, false, true);
    const double ratio = area / cv::contourArea(hull, false);
    return !(configs.minConvexRatio > ratio || ratio > configs.maxConvexRatio);
}

double eccentricityOf(const cv::RotatedRect& rect) {
    const double major = std::max(rect.size.width, rect.size.height);
    const double minor = std::min(rect.size.width, rect.size.height);
    return std::sqrt(major * major - minor * minor) / major;
}

}  // namespace

bool CircleMarkerExtractor::extractMarkPointsFast(const cv::Mat& image, std::vector<Corner>& corners,
                                                  int /*cameraIndex*/, const CicrleConfigs& configs) {
    if (image.empty()) return false;
    requireGreyImage(image);

    cv::Mat binary;
    cv::threshold(image, binary, kThreshold, kForeground, cv::THRESH_BINARY);
    std::vector<PixelContour> contours;
    cv::findContours(binary, contours, cv::RETR_EXTERNAL, cv::CHAIN_APPROX_NONE);

    PixelContour hull;
    for (const PixelContour& contour : contours) {
        const cv::Mat points(contour, false);  // a header over the points
        const double area = cv::moments(points, false).m00;
        if (configs.enableAreaFilter && !passesArea(area, configs)) continue;
        if (configs.enableCircularityFilter && !passesCircularity(contour, area, configs)) continue;
        if (configs.enableConvexityFilter && !passesConvexity(contour, area, hull, configs)) continue;

        const cv::RotatedRect rect = cv::fitEllipse(points);
        double eccentricity = 0;
        if (configs.enableEccentricityFilter) {
            eccentricity = eccentricityOf(rect);
            if (eccentricity > configs.maxEccentricity) continue;
        }

        Corner corner;
        corner.x = rect.center.x;
        corner.y = rect.center.y;
        corner.area = area;
        corner.eccentricity = eccentricity;
        corners.push_back(corner);
    }
    return !corners.empty();
}

}  // namespace kestrune
