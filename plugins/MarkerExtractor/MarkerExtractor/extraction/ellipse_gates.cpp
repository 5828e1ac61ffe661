// SPDX-License-Identifier: Apache-2.0
#include "MarkerExtractor/extraction/ellipse_gates.h"

#include <algorithm>
#include <cmath>

#include "MarkerExtractor/camera/undistort.h"
#include "kestrune_geometry/contour_shape.h"

namespace kestrune {

namespace {

// Ramanujan's perimeter of the ellipse over the contour's length. A contour that wanders, or one whose ends were cut
// off, is longer or shorter than the ellipse fitted to it.
constexpr float kLeastPerimeterRatio = 0.8f;
constexpr float kLargestPerimeterRatio = 1.25f;

/// Ellipse perimeter over contour length.
float perimeterRatio(const cv::RotatedRect& rect, double perimeter) {
    return static_cast<float>(static_cast<double>(geometry::ellipsePerimeter(geometry::HalfAxes(rect))) / perimeter);
}

/// Sub-pixel contours. Only a contour that is bad on the whole and has a bad point is refused: one far point, or many
/// points that are all a little off, may be a speck or blur on the rim of a real marker.
void judgeFitError(GateVerdict& verdict, const SimpleGates& gates) {
    Corner& candidate = verdict.candidate;
    const bool allNear = ellipseFitError(verdict.rect, candidate.contour, candidate.fitError, gates.maxPointError);
    if (allNear || !verdict.fails(gates[Gate::kFitError], candidate.fitError)) return;
    writeReason(candidate.fitText, "fit_error", candidate.fitError);
}

/// Radial contours.
void judgeConicShape(GateVerdict& verdict, double perimeter, const SimpleGates& gates) {
    Corner& candidate = verdict.candidate;
    if (verdict.fails(gates[Gate::kFitResidual], candidate.fitResidual)) {
        writeReason(candidate.fitText, "fit_residual", candidate.fitResidual);
        return;
    }
    verdict.fails(gates[Gate::kPerimeter], perimeterRatio(verdict.rect, perimeter));
}

/// Circularity, convexity and how well the ellipse fits.
void judgeShape(const std::vector<cv::Point2f>& contour, double perimeter, const SimpleGates& gates,
                GateVerdict& verdict) {
    Corner& candidate = verdict.candidate;
    candidate.circularity = geometry::circularity(candidate.area, perimeter);
    if (verdict.fails(gates[Gate::kCircularity], candidate.circularity)) return;
    if (gates[Gate::kConvexity].isOn) {
        std::vector<cv::Point2f> hull;
        candidate.convexRatio = candidate.area / geometry::hullArea(contour, hull);
        if (verdict.fails(gates[Gate::kConvexity], candidate.convexRatio)) return;
    }
    if (gates.isRadial) {
        judgeConicShape(verdict, perimeter, gates);
    } else {
        judgeFitError(verdict, gates);
    }
}

}  // namespace

SimpleGates::SimpleGates(const CicrleConfigs& c)
    : GateTable{between(Gate::kArea, "area", "minArea {} to maxArea {}", c.minArea, c.maxArea),
                finiteFit(),
                eccentricityGate(c),
                circularityGate(c),
                convexityGate(c),
                atMost(Gate::kFitError, "fit error", "maxFitError {}, or no point beyond maxPointError {}",
                       c.maxFitError)
                    .telling({c.maxFitError, c.maxPointError}),
                atMost(Gate::kFitResidual, "fit residual", "maxFitResidual {}", c.maxFitResidual),
                between(Gate::kPerimeter, "perimeter", "ellipse over contour length, {} to {}", kLeastPerimeterRatio,
                        kLargestPerimeterRatio, Ends::kOpen)},
      isRadial(c.useRadialContours),
      maxPointError(c.maxPointError) {}

GateVerdict judgeContour(const std::vector<cv::Point2f>& contour, const SimpleGates& gates,
                         const std::optional<LensModel>& lens) {
    GateVerdict verdict;
    Corner& candidate = verdict.candidate;
    const double perimeter = geometry::perimeterOf(contour);
    const double area = geometry::areaOf(contour);
    if (verdict.fails(gates[Gate::kArea], area)) {
        writeReason(candidate.areaText, "area", area);
        return verdict;
    }

    candidate.contour = contour;
    if (lens) {
        candidate.x = candidate.y = 0;  // travels along with the contour and is replaced by the fit
        undistortCorner(candidate, lens->intrinsic, lens->distortion);
    }
    const cv::RotatedRect rect =
        gates.isRadial ? cv::fitEllipseDirect(candidate.contour) : cv::fitEllipse(candidate.contour);
    if (gates.isRadial) fillConic(candidate, rect);
    if (failsEllipse(verdict, rect, area, gates)) return verdict;
    judgeShape(contour, perimeter, gates, verdict);
    if (verdict.accepted()) candidate.area = verdict.rect.size.width * verdict.rect.size.height;
    return verdict;
}

Admission admitMarker(GateVerdict& verdict, MarkerList& markers) {
    Corner& candidate = verdict.candidate;
    const auto placeOf = [&verdict, &candidate] {
        const cv::Size2f& size = verdict.rect.size;
        return MarkerList::Place{candidate.x, candidate.y, 0.5f * std::max(size.width, size.height)};
    };
    for (std::size_t k = 0; k < markers.places.size(); ++k) {
        const MarkerList::Place& place = markers.places[k];
        const double dx = candidate.x - place.x, dy = candidate.y - place.y;
        const double reach = std::max(verdict.halfAxis, place.halfAxis);
        if (std::abs(dx) >= reach || std::abs(dy) >= reach) continue;  // nor is the distance below it, rounded or not
        const double distance = std::sqrt(dx * dx + dy * dy);
        if (!(distance > 0 && distance < reach)) continue;
        Corner& known = markers.corners[k];
        const std::int32_t id = known.id;
        if (!(candidate.circularity > known.circularity && known.fitError > candidate.fitError)) {
            return {Admission::kDropped, id};
        }
        candidate.id = id;
        markers.places[k] = placeOf();
        known = std::move(candidate);
        markers.rects[k] = verdict.rect;
        return {Admission::kReplaced, id};
    }
    markers.places.push_back(placeOf());
    candidate.id = markers.nextId++;
    const std::int32_t id = candidate.id;
    markers.corners.push_back(std::move(candidate));
    markers.rects.push_back(verdict.rect);
    return {Admission::kAdded, id};
}

}  // namespace kestrune
