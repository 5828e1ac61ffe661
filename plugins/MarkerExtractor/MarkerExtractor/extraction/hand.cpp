// SPDX-License-Identifier: Apache-2.0
#include "MarkerExtractor/extraction/hand.h"

#include <cmath>
#include <numbers>
#include <opencv2/imgproc.hpp>

#include "MarkerExtractor/extraction/gate_parts.h"
#include "canny/weak_edges.h"
#include "checks/settings_check.h"
#include "kestrune/MarkerExtractor.h"

namespace kestrune {

namespace {

// One set of edge settings for every image. A Sobel gradient is four units for each grey level of a sharp step, so that
// an edge begins at a step of about 125 grey levels and is followed down to one of 50; blur weakens both.
constexpr double kEdgeLow = 200;
constexpr double kEdgeHigh = 500;
constexpr int kEdgeAperture = 3;
constexpr double kSobelGain = 4;  ///< of a sharp step of one grey level
constexpr int kLeastLine = 5;     ///< pixels: no ellipse goes through fewer
constexpr int kMedianSide = 3;

// Perimeter squared over area, both ends included: from a circle to twice that, which lets squares pass.
constexpr double kLeastCompactness = 4 * std::numbers::pi;
constexpr double kLargestCompactness = 8 * std::numbers::pi;

using PixelContour = std::vector<cv::Point>;

}  // namespace

std::vector<std::vector<cv::Point>> handContours(const cv::Mat& image) {
    cv::Mat edges;
    cv::Canny(image, edges, kEdgeLow, kEdgeHigh, kEdgeAperture, true);
    std::vector<PixelContour> contours;
    std::vector<cv::Vec4i> hierarchy;
    cv::findContours(edges, contours, hierarchy, cv::RETR_CCOMP, cv::CHAIN_APPROX_NONE);

    // Along the top level from the first contour on: the inner boundaries of the edges hang below their outer ones.
    std::vector<PixelContour> outer;
    for (int index = contours.empty() ? -1 : 0; index != -1 && index < static_cast<int>(contours.size());
         index = hierarchy[static_cast<std::size_t>(index)][0]) {
        outer.push_back(contours[static_cast<std::size_t>(index)]);
    }
    return outer;
}

void noteHandDrops(const cv::Mat& image, Drops& drops) {
    cv::Mat edges, all;
    cv::Canny(image, edges, kEdgeLow, kEdgeHigh, kEdgeAperture, true);
    cv::Canny(image, all, kEdgeLow, kEdgeLow, kEdgeAperture, true);
    cv::Mat heights = cv::Mat::zeros(image.size(), CV_32FC1);
    for (int channel = 0; channel < image.channels(); ++channel) {  // the detector, too, takes the strongest of each
        cv::Mat plane, dx, dy, magnitude;
        cv::extractChannel(image, plane, channel);
        cv::Sobel(plane, dx, CV_32F, 1, 0, kEdgeAperture, 1 / kSobelGain, 0, cv::BORDER_REPLICATE);
        cv::Sobel(plane, dy, CV_32F, 0, 1, kEdgeAperture, 1 / kSobelGain, 0, cv::BORDER_REPLICATE);
        cv::magnitude(dx, dy, magnitude);
        cv::max(heights, magnitude, heights);
    }
    noteWeakEdges(all, edges, heights, below(DropCause::kWeakStep, 0.0, kEdgeHigh / kSobelGain), kLeastLine, drops);
}

GateVerdict judgeHandContour(const std::vector<cv::Point>& contour, const CicrleConfigs& configs) {
    GateVerdict verdict;
    Corner& candidate = verdict.candidate;
    const double perimeter = geometry::perimeterOf(contour);
    const double area = geometry::areaOf(contour);
    if (configs.minArea > area || area > configs.maxArea) {
        writeReason(candidate.areaText, "area", area);
        refuse(verdict, Gate::kArea, area);
        return verdict;
    }
    // A single point has 0 / 0 here, passes, and ends the call in the fit.
    const double compactness = geometry::compactness(area, perimeter);
    if (compactness < kLeastCompactness || compactness > kLargestCompactness) {
        writeReason(candidate.ratioText, "ratio", compactness);
        refuse(verdict, Gate::kCompactness, compactness);
        return verdict;
    }

    candidate.contour.assign(contour.begin(), contour.end());
    candidate.compactness = compactness;
    if (!passesEllipse(verdict, cv::fitEllipse(contour), area, configs)) return verdict;
    ellipseFitError(verdict.rect, contour, candidate.fitError, configs.maxPointError);
    if (candidate.fitError > configs.maxFitError) {
        writeReason(candidate.fitText, "fit_error", candidate.fitError);
        refuse(verdict, Gate::kFitError, candidate.fitError);
        return verdict;
    }
    candidate.area = verdict.rect.size.width * verdict.rect.size.height;
    return verdict;
}

Admission admitHandMarker(const GateVerdict& verdict, std::vector<Corner>& corners) {
    const Corner& candidate = verdict.candidate;
    const double reach = geometry::HalfAxes(verdict.rect).b;
    for (std::size_t k = 0; k < corners.size(); ++k) {
        Corner& known = corners[k];
        const double distance = std::sqrt(std::pow(candidate.x - known.x, 2) + std::pow(candidate.y - known.y, 2));
        if (!(distance > 0 && reach > distance)) continue;
        const bool isSmaller = known.area > candidate.area;
        if (isSmaller) known = candidate;
        return {isSmaller ? Admission::kReplaced : Admission::kDropped, static_cast<std::int32_t>(k)};
    }
    corners.push_back(candidate);
    return {Admission::kAdded, static_cast<std::int32_t>(corners.size() - 1)};
}

bool CircleMarkerExtractor::CircleExtractSimpleForHand(cv::Mat& image, std::vector<Corner>& corners,
                                                       int /*cameraIndex*/, const CicrleConfigs& configs) {
    if (image.empty()) return false;
    requireByteImage(image);
    // The copy, the median and the grey image below are part of the path, with their time and their exceptions, though
    // nothing reads them: hosts rely on an image of one channel being refused once it has shown a marker.
    cv::Mat grayCopy = image.clone();
    cv::Mat blurred;
    cv::medianBlur(image, blurred, kMedianSide);
    for (const PixelContour& contour : handContours(image)) {
        const GateVerdict verdict = judgeHandContour(contour, configs);
        if (verdict.accepted()) admitHandMarker(verdict, corners);
    }
    if (corners.empty()) return false;
    cv::cvtColor(image, grayCopy, cv::COLOR_BGR2GRAY, 0);
    markerName = configs.markerName;
    return true;
}

}  // namespace kestrune
