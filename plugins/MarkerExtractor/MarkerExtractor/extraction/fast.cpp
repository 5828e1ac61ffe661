// SPDX-License-Identifier: Apache-2.0
#include "MarkerExtractor/extraction/fast.h"

#include <algorithm>
#include <opencv2/imgproc.hpp>

#include "MarkerExtractor/extraction/gate_parts.h"
#include "checks/settings_check.h"
#include "kestrune/MarkerExtractor.h"

namespace kestrune {

namespace {

constexpr double kThreshold = 100;   ///< grey level above which a pixel belongs to a marker
constexpr double kForeground = 250;  ///< its value in the binary image; any value but 0 traces alike
constexpr std::size_t kLeastFitPoints = 5;
constexpr int kThresholdStep = 10;  ///< grey levels, of the other thresholds to look for shapes at

using PixelContour = std::vector<cv::Point>;

double eccentricityOf(const cv::RotatedRect& rect) {
    return geometry::eccentricity(std::max(rect.size.width, rect.size.height),
                                  std::min(rect.size.width, rect.size.height));
}

/// Area, circularity and convexity, which need no ellipse.
Gate judgeOutline(const PixelContour& contour, const CicrleConfigs& configs, PixelContour& hull, FastVerdict& verdict) {
    const double area = verdict.area;
    // The upper bound is exclusive on this path and inclusive on the others.
    if (configs.enableAreaFilter && (configs.minArea > area || area >= configs.maxArea)) {
        return refuse(verdict, Gate::kArea, area);
    }
    if (configs.enableCircularityFilter) {
        const double circularity = geometry::circularity(area, geometry::perimeterOf(contour));
        if (configs.minCircularity > circularity || circularity >= configs.maxCircularity) {
            return refuse(verdict, Gate::kCircularity, circularity);
        }
    }
    if (configs.enableConvexityFilter) {
        const double ratio = area / geometry::hullArea(contour, hull);
        if (configs.minConvexRatio > ratio || ratio > configs.maxConvexRatio) {
            return refuse(verdict, Gate::kConvexity, ratio);
        }
    }
    return Gate::kNone;
}

std::vector<PixelContour> contoursAbove(const cv::Mat& image, double threshold) {
    cv::Mat binary;
    cv::threshold(image, binary, threshold, kForeground, cv::THRESH_BINARY);
    std::vector<PixelContour> contours;
    cv::findContours(binary, contours, cv::RETR_EXTERNAL, cv::CHAIN_APPROX_NONE);
    return contours;
}

/// What the gates take at a threshold.
std::vector<cv::RotatedRect> shapesAbove(const cv::Mat& image, double threshold, const CicrleConfigs& configs) {
    std::vector<cv::RotatedRect> shapes;
    PixelContour hull;
    for (const PixelContour& contour : contoursAbove(image, threshold)) {
        if (contour.size() < kLeastFitPoints) continue;
        const FastVerdict verdict = judgeFastContour(contour, configs, hull);
        if (verdict.accepted() && geometry::isFinite(verdict.rect)) shapes.push_back(verdict.rect);
    }
    return shapes;
}

/// The nearest to the path's own first.
std::vector<double> otherThresholds() {
    std::vector<double> thresholds;
    for (int step = 1; step * kThresholdStep < 255 - kThreshold; ++step) {
        for (const int sign : {-1, 1}) {
            const double threshold = kThreshold + sign * step * kThresholdStep;
            if (threshold > 0) thresholds.push_back(threshold);
        }
    }
    return thresholds;
}

}  // namespace

std::vector<std::vector<cv::Point>> fastContours(const cv::Mat& image) {
    return contoursAbove(image, kThreshold);
}

void noteFastDrops(const cv::Mat& image, const CicrleConfigs& configs, Drops& drops) {
    cv::Mat binary;
    std::vector<PixelContour> contours;
    std::vector<cv::Vec4i> tree;
    cv::threshold(image, binary, kThreshold, kForeground, cv::THRESH_BINARY);
    cv::findContours(binary, contours, tree, cv::RETR_TREE, cv::CHAIN_APPROX_NONE);
    const auto parentOf = [&tree](int k) { return k < 0 ? -1 : tree[static_cast<std::size_t>(k)][3]; };
    for (std::size_t k = 0; k < contours.size(); ++k) {
        int depth = 0;
        for (int parent = tree[k][3]; parent >= 0; parent = parentOf(parent)) ++depth;
        if (depth == 0 || depth % 2 == 1) continue;  // outermost, or a hole
        Drop drop = above(DropCause::kInside, cv::contourArea(contours[k]), 0.0);
        note(&drops, Met::kBlob, drop, cv::boundingRect(contours[k]));
    }

    std::vector<cv::RotatedRect> known = shapesAbove(image, kThreshold, configs);
    for (const double threshold : otherThresholds()) {
        for (const cv::RotatedRect& shape : shapesAbove(image, threshold, configs)) {
            const bool isKnown = std::any_of(known.begin(), known.end(), [&shape](const cv::RotatedRect& other) {
                return cv::norm(shape.center - other.center) < 0.5 * std::max(other.size.width, other.size.height);
            });
            if (isKnown) continue;
            known.push_back(shape);
            note(&drops, Met::kBlob,
                 threshold < kThreshold ? below(DropCause::kGreyLevel, threshold, kThreshold)
                                        : above(DropCause::kGreyLevel, threshold, kThreshold),
                 shape.boundingRect());
        }
    }
}

FastVerdict judgeFastContour(const PixelContour& contour, const CicrleConfigs& configs, PixelContour& hull) {
    const cv::Mat points(contour, false);  // a header over the points
    FastVerdict verdict;
    verdict.area = cv::moments(points, false).m00;
    if (judgeOutline(contour, configs, hull, verdict) != Gate::kNone) return verdict;
    verdict.rect = cv::fitEllipse(points);
    if (!geometry::isFinite(verdict.rect)) {
        refuse(verdict, Gate::kFit, std::numeric_limits<double>::quiet_NaN());
        return verdict;
    }
    if (configs.enableEccentricityFilter) {
        verdict.eccentricity = eccentricityOf(verdict.rect);
        if (verdict.eccentricity > configs.maxEccentricity) {
            refuse(verdict, Gate::kEccentricity, verdict.eccentricity);
        }
    }
    return verdict;
}

bool CircleMarkerExtractor::extractMarkPointsFast(const cv::Mat& image, std::vector<Corner>& corners,
                                                  int /*cameraIndex*/, const CicrleConfigs& configs) {
    if (image.empty()) return false;
    requireGreyImage(image);
    PixelContour hull;
    for (const PixelContour& contour : fastContours(image)) {
        const FastVerdict verdict = judgeFastContour(contour, configs, hull);
        if (!verdict.accepted()) continue;
        Corner corner;
        corner.x = verdict.rect.center.x;
        corner.y = verdict.rect.center.y;
        corner.area = verdict.area;
        corner.eccentricity = verdict.eccentricity;
        corners.push_back(corner);
    }
    return !corners.empty();
}

}  // namespace kestrune
