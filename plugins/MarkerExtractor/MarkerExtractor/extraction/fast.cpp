// SPDX-License-Identifier: Apache-2.0
#include "MarkerExtractor/extraction/fast.h"

#include <algorithm>
#include <limits>
#include <opencv2/imgproc.hpp>
#include <optional>

#include "MarkerExtractor/extraction/contour_verdict.h"
#include "checks/settings_check.h"
#include "kestrune/MarkerExtractor.h"
#include "kestrune_geometry/contour_shape.h"

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
///
/// @return whether one of the gates refused.
bool failsOutline(const PixelContour& contour, const FastGates& gates, PixelContour& hull, FastVerdict& verdict) {
    const double area = verdict.area;
    const GateRule& circularity = gates[Gate::kCircularity];
    const GateRule& convexity = gates[Gate::kConvexity];
    return verdict.fails(gates[Gate::kArea], area) ||
           (circularity.isOn &&
            verdict.fails(circularity, geometry::circularity(area, geometry::perimeterOf(contour)))) ||
           (convexity.isOn && verdict.fails(convexity, area / geometry::hullArea(contour, hull)));
}

/// Outlines of what is brighter than a threshold, the outermost of each.
std::vector<PixelContour> contoursAbove(const cv::Mat& image, double threshold) {
    cv::Mat binary;
    cv::threshold(image, binary, threshold, kForeground, cv::THRESH_BINARY);
    std::vector<PixelContour> contours;
    cv::findContours(binary, contours, cv::RETR_EXTERNAL, cv::CHAIN_APPROX_NONE);
    return contours;
}

/// What the gates take at a threshold.
std::vector<cv::RotatedRect> shapesAbove(const cv::Mat& image, double threshold, const FastGates& gates) {
    std::vector<cv::RotatedRect> shapes;
    PixelContour hull;
    for (const PixelContour& contour : contoursAbove(image, threshold)) {
        if (contour.size() < kLeastFitPoints) continue;
        const FastVerdict verdict = judgeFastContour(contour, gates, hull);
        if (verdict.accepted()) shapes.push_back(verdict.rect);
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

void noteInnerShapes(const cv::Mat& image, Drops& drops) {
    cv::Mat binary;
    std::vector<PixelContour> contours;
    std::vector<cv::Vec4i> tree;
    cv::threshold(image, binary, kThreshold, kForeground, cv::THRESH_BINARY);
    cv::findContours(binary, contours, tree, cv::RETR_TREE, cv::CHAIN_APPROX_NONE);
    const auto parentOf = [&tree](int k) { return tree[static_cast<std::size_t>(k)][3]; };
    for (std::size_t k = 0; k < contours.size(); ++k) {
        int depth = 0;
        for (int parent = tree[k][3]; parent >= 0; parent = parentOf(parent)) ++depth;
        if (depth == 0 || depth % 2 == 1) continue;  // outermost, or a hole
        const Drop drop = above(DropCause::kInside, cv::contourArea(contours[k]), 0.0);
        note(&drops, Met::kBlob, drop, cv::boundingRect(contours[k]));
    }
}

void noteShapesOfOtherThresholds(const cv::Mat& image, const FastGates& gates, Drops& drops) {
    std::vector<cv::RotatedRect> known = shapesAbove(image, kThreshold, gates);
    for (const double threshold : otherThresholds()) {
        for (const cv::RotatedRect& shape : shapesAbove(image, threshold, gates)) {
            const bool isKnown = std::ranges::any_of(known, [&shape](const cv::RotatedRect& other) {
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

}  // namespace

FastGates::FastGates(const CicrleConfigs& c)
    : GateTable{between(Gate::kArea, "area", "minArea {} to below maxArea {}", c.minArea, c.maxArea, Ends::kHalfOpen)
                    .onlyIf(c.enableAreaFilter),
                circularityGate(c), convexityGate(c), finiteFit(),
                eccentricityGate(c).onlyIf(c.enableEccentricityFilter)} {}

FastVerdict judgeFastContour(const PixelContour& contour, const FastGates& gates, PixelContour& hull) {
    const cv::Mat points(contour, false);  // a header over the points
    FastVerdict verdict;
    verdict.area = cv::moments(points, false).m00;
    if (failsOutline(contour, gates, hull, verdict)) return verdict;
    verdict.rect = cv::fitEllipse(points);
    if (!geometry::isFinite(verdict.rect)) {
        verdict.refuse(gates[Gate::kFit], std::numeric_limits<double>::quiet_NaN());
    } else if (gates[Gate::kEccentricity].isOn) {
        verdict.eccentricity = eccentricityOf(verdict.rect);
        verdict.fails(gates[Gate::kEccentricity], verdict.eccentricity);
    }
    return verdict;
}

void findFastMarkers(const cv::Mat& image, const CicrleConfigs& configs, std::vector<Corner>& corners,
                     Findings* findings) {
    const FastGates gates(configs);
    CandidateAccount account(findings, gates);
    PixelContour hull;
    for (const PixelContour& contour : contoursAbove(image, kThreshold)) {
        const FastVerdict verdict = judgeFastContour(contour, gates, hull);
        std::optional<Admission> admission;
        if (verdict.accepted()) {
            admission = {Admission::kAdded, static_cast<std::int32_t>(corners.size())};
            Corner& corner = corners.emplace_back();
            corner.x = verdict.rect.center.x;
            corner.y = verdict.rect.center.y;
            corner.area = verdict.area;
            corner.eccentricity = verdict.eccentricity;
        }
        account.add(contour, verdict.rect, verdict, admission);
    }
    Drops* const drops = dropsOf(findings);
    if (drops == nullptr) return;
    noteInnerShapes(image, *drops);
    noteShapesOfOtherThresholds(image, gates, *drops);
}

bool CircleMarkerExtractor::extractMarkPointsFast(const cv::Mat& image, std::vector<Corner>& corners,
                                                  int /*cameraIndex*/, const CicrleConfigs& configs) {
    if (image.empty()) return false;
    requireGreyImage(image);
    findFastMarkers(image, configs, corners, nullptr);
    return !corners.empty();
}

}  // namespace kestrune
