// SPDX-License-Identifier: Apache-2.0
#include "MarkerExtractor/extraction/hand.h"

#include <cmath>
#include <numbers>
#include <opencv2/imgproc.hpp>
#include <optional>

#include "MarkerExtractor/extraction/fit_error.h"
#include "canny/weak_edges.h"
#include "checks/settings_check.h"
#include "kestrune/MarkerExtractor.h"
#include "kestrune_geometry/contour_shape.h"

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

// Perimeter squared over area, in units of pi, both ends included: from a circle to twice that, which lets squares
// pass.
constexpr double kLeastCompactness = 4;
constexpr double kLargestCompactness = 8;

using PixelContour = std::vector<cv::Point>;

cv::Mat edgesOf(const cv::Mat& image, double high) {
    cv::Mat edges;
    cv::Canny(image, edges, kEdgeLow, high, kEdgeAperture, true);
    return edges;
}

/// Outlines of the edges, the outermost of each.
std::vector<PixelContour> outlinesOf(const cv::Mat& edges) {
    std::vector<PixelContour> contours;
    std::vector<cv::Vec4i> hierarchy;
    cv::findContours(edges, contours, hierarchy, cv::RETR_CCOMP, cv::CHAIN_APPROX_NONE);

    // Along the top level from the first contour on: the inner boundaries of the edges hang below their outer ones.
    std::vector<PixelContour> outer;
    for (int index = contours.empty() ? -1 : 0; index != -1 && index < static_cast<int>(contours.size());
         index = hierarchy[static_cast<std::size_t>(index)][0]) {
        outer.push_back(std::move(contours[static_cast<std::size_t>(index)]));
    }
    return outer;
}

/// Notes the lines of pixels above the lower threshold of an edge none of which reaches the upper one.
void noteDrops(const cv::Mat& image, const cv::Mat& edges, Drops& drops) {
    cv::Mat heights = cv::Mat::zeros(image.size(), CV_32FC1);
    for (int channel = 0; channel < image.channels(); ++channel) {  // the detector, too, takes the strongest of each
        cv::Mat plane, dx, dy, magnitude;
        cv::extractChannel(image, plane, channel);
        cv::Sobel(plane, dx, CV_32F, 1, 0, kEdgeAperture, 1 / kSobelGain, 0, cv::BORDER_REPLICATE);
        cv::Sobel(plane, dy, CV_32F, 0, 1, kEdgeAperture, 1 / kSobelGain, 0, cv::BORDER_REPLICATE);
        cv::magnitude(dx, dy, magnitude);
        cv::max(heights, magnitude, heights);
    }
    noteWeakEdges(edgesOf(image, kEdgeLow), edges, heights, below(DropCause::kWeakStep, 0.0, kEdgeHigh / kSobelGain),
                  kLeastLine, drops);
}

}  // namespace

HandGates::HandGates(const CicrleConfigs& c)
    : GateTable{between(Gate::kArea, "area", "minArea {} to maxArea {}", c.minArea, c.maxArea),
                between(Gate::kCompactness, "compactness", "perimeter squared over area, {} pi to {} pi",
                        kLeastCompactness * std::numbers::pi, kLargestCompactness * std::numbers::pi)
                    .telling({kLeastCompactness, kLargestCompactness}),
                finiteFit(), eccentricityGate(c),
                atMost(Gate::kFitError, "fit error", "maxFitError {}", c.maxFitError)} {}

GateVerdict judgeHandContour(const std::vector<cv::Point>& contour, const HandGates& gates) {
    GateVerdict verdict;
    Corner& candidate = verdict.candidate;
    const double perimeter = geometry::perimeterOf(contour);
    const double area = geometry::areaOf(contour);
    if (verdict.fails(gates[Gate::kArea], area)) {
        writeReason(candidate.areaText, "area", area);
        return verdict;
    }
    // A single point has 0 / 0 here, passes, and ends the call in the fit.
    const double compactness = geometry::compactness(area, perimeter);
    if (verdict.fails(gates[Gate::kCompactness], compactness)) {
        writeReason(candidate.ratioText, "ratio", compactness);
        return verdict;
    }

    candidate.contour.assign(contour.begin(), contour.end());
    candidate.compactness = compactness;
    if (failsEllipse(verdict, cv::fitEllipse(contour), area, gates)) return verdict;
    ellipseFitError(verdict.rect, contour, candidate.fitError, kNoBound);
    if (verdict.fails(gates[Gate::kFitError], candidate.fitError)) {
        writeReason(candidate.fitText, "fit_error", candidate.fitError);
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

void findHandMarkers(const cv::Mat& image, const CicrleConfigs& configs, std::vector<Corner>& corners,
                     Findings* findings) {
    const cv::Mat edges = edgesOf(image, kEdgeHigh);
    const HandGates gates(configs);
    CandidateAccount account(findings, gates);
    for (const PixelContour& contour : outlinesOf(edges)) {
        const GateVerdict verdict = judgeHandContour(contour, gates);
        std::optional<Admission> admission;
        if (verdict.accepted()) admission = admitHandMarker(verdict, corners);
        account.add(contour, verdict.rect, verdict, admission);
    }
    if (Drops* const drops = dropsOf(findings)) noteDrops(image, edges, *drops);
}

bool CircleMarkerExtractor::CircleExtractSimpleForHand(cv::Mat& image, std::vector<Corner>& corners,
                                                       int /*cameraIndex*/, const CicrleConfigs& configs) {
    if (image.empty()) return false;
    requireByteImage(image);
    // Nothing reads the copy, the median and the grey image below. They are part of the path with their exceptions: an
    // image of one channel is refused once it has shown a marker.
    cv::Mat grayCopy = image.clone();
    cv::Mat blurred;
    cv::medianBlur(image, blurred, kMedianSide);
    findHandMarkers(image, configs, corners, nullptr);
    if (corners.empty()) return false;
    cv::cvtColor(image, grayCopy, cv::COLOR_BGR2GRAY, 0);
    markerName = configs.markerName;
    return true;
}

}  // namespace kestrune
