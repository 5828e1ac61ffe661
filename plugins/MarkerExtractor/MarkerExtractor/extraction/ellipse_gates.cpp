// SPDX-License-Identifier: Apache-2.0
#include "MarkerExtractor/extraction/ellipse_gates.h"

#include <algorithm>
#include <cmath>
#include <numbers>
#include <opencv2/imgproc.hpp>

#include "MarkerExtractor/camera/undistort.h"
#include "MarkerExtractor/extraction/gate_parts.h"

namespace kestrune {

namespace {

// Ramanujan's perimeter of the ellipse over the contour's length, both bounds exclusive. A contour that wanders, or one
// whose ends were cut off, is longer or shorter than the ellipse fitted to it.
constexpr float kLeastPerimeterRatio = 0.8f;
constexpr float kLargestPerimeterRatio = 1.25f;

bool passesArea(double area, const CicrleConfigs& configs, bool isFullSize) {
    const double scale = configs.scale;
    const double judged = isFullSize ? area : area * (scale * scale);
    return !(configs.minArea > judged || judged > configs.maxArea);
}

bool passesConvexity(const std::vector<cv::Point2f>& contour, Corner& candidate, const CicrleConfigs& configs) {
    std::vector<cv::Point2f> hull;
    candidate.convexRatio = candidate.area / geometry::hullArea(contour, hull);
    return !(configs.minConvexRatio > candidate.convexRatio || candidate.convexRatio > configs.maxConvexRatio);
}

/// Ellipse perimeter over contour length.
float perimeterRatio(const geometry::HalfAxes& axes, double perimeter) {
    return static_cast<float>(static_cast<double>(geometry::ellipsePerimeter(axes)) / perimeter);
}

/// Sub-pixel contours. Only a contour that is bad on the whole and has a bad point is refused: one far point, or many
/// points that are all a little off, may be a speck or blur on the rim of a real marker.
bool passesFitError(GateVerdict& verdict, const CicrleConfigs& configs) {
    Corner& candidate = verdict.candidate;
    const bool allNear = ellipseFitError(verdict.rect, candidate.contour, candidate.fitError, configs.maxPointError);
    if (!(candidate.fitError > configs.maxFitError) || allNear) return true;
    writeReason(candidate.fitText, "fit_error", candidate.fitError);
    refuse(verdict, Gate::kFitError, candidate.fitError);
    return false;
}

/// Radial contours.
bool passesConicShape(GateVerdict& verdict, const geometry::HalfAxes& axes, double perimeter,
                      const CicrleConfigs& configs) {
    Corner& candidate = verdict.candidate;
    if (candidate.fitResidual > static_cast<double>(configs.maxFitResidual)) {
        writeReason(candidate.fitText, "fit_residual", candidate.fitResidual);
        refuse(verdict, Gate::kFitResidual, candidate.fitResidual);
        return false;
    }
    const float ratio = perimeterRatio(axes, perimeter);
    if (kLeastPerimeterRatio >= ratio || ratio >= kLargestPerimeterRatio) {
        refuse(verdict, Gate::kPerimeter, ratio);
        return false;
    }
    return true;
}

/// Brings a result of a reduced image to full size. Contour points are moved along with the centre, not spread.
void bringToFullSize(Corner& candidate, cv::RotatedRect& rect, int scale) {
    const auto f = static_cast<float>(scale - 1);
    const float dx = rect.center.x * f;
    const float dy = rect.center.y * f;
    candidate.x = rect.center.x + dx;
    candidate.y = rect.center.y + dy;
    rect.size.width *= static_cast<float>(scale);
    rect.size.height *= static_cast<float>(scale);
    for (cv::Point2f& point : candidate.contour) point += cv::Point2f(dx, dy);
}

template <typename Point>
bool fitErrorOf(const cv::RotatedRect& ellipse, const std::vector<Point>& points, double& error, double pointLimit) {
    const geometry::HalfAxes axes(ellipse);
    const double phi = (90.0 - ellipse.angle) / 180.0 * std::numbers::pi;
    const double sn = std::sin(phi);
    const double cs = std::cos(phi);
    double sum = 0;
    bool allNear = true;
    for (const Point& point : points) {
        const double dx = static_cast<double>(point.x) - ellipse.center.x;
        const double dy = static_cast<double>(point.y) - ellipse.center.y;
        const double u = dx * cs - dy * sn;
        const double v = dy * cs + dx * sn;
        // The factor a / b stands on the far side only. It makes the measure asymmetric for long ellipses; the bounds
        // that hosts use were found with it, so it stays.
        const double t = u < 0 ? std::numbers::pi + std::atan(axes.a / axes.b * v / u) : std::atan2(v, u);
        const double radius = std::sqrt(v * v + u * u);
        const double p = axes.a * std::cos(t);
        const double q = axes.b * std::sin(t);
        const double distance = std::abs(radius - std::sqrt(p * p + q * q));
        if (distance > pointLimit) allNear = false;
        sum += distance * distance;
    }
    error = std::sqrt(sum / static_cast<double>(points.size()));
    return allNear;
}

}  // namespace

bool ellipseFitError(const cv::RotatedRect& ellipse, const std::vector<cv::Point2f>& points, double& error,
                     const double& pointLimit) {
    return fitErrorOf(ellipse, points, error, pointLimit);
}

bool ellipseFitError(const cv::RotatedRect& ellipse, const std::vector<cv::Point>& points, double& error,
                     const double& pointLimit) {
    return fitErrorOf(ellipse, points, error, pointLimit);
}

GateVerdict judgeContour(const std::vector<cv::Point2f>& contour, const CicrleConfigs& configs, const LensModel& lens,
                         bool isFullSize) {
    GateVerdict verdict;
    Corner& candidate = verdict.candidate;
    const double perimeter = geometry::perimeterOf(contour);
    const double area = geometry::areaOf(contour);
    if (!passesArea(area, configs, isFullSize)) {
        writeReason(candidate.areaText, "area", area);
        refuse(verdict, Gate::kArea, area);
        return verdict;
    }

    candidate.contour = contour;
    if (!configs.skipUndistort) {
        candidate.x = candidate.y = 0;  // travels along with the contour and is replaced by the fit
        undistortCorner(candidate, lens.intrinsic, lens.distortion);
    }
    const cv::RotatedRect rect =
        configs.useRadialContours ? cv::fitEllipseDirect(candidate.contour) : cv::fitEllipse(candidate.contour);
    if (configs.useRadialContours) fillConic(candidate, rect);
    if (!passesEllipse(verdict, rect, area, configs)) return verdict;
    const geometry::HalfAxes axes(rect);
    candidate.circularity = geometry::circularity(area, perimeter);
    if (configs.enableCircularityFilter &&
        (configs.minCircularity > candidate.circularity || candidate.circularity >= configs.maxCircularity)) {
        refuse(verdict, Gate::kCircularity, candidate.circularity);
        return verdict;
    }
    if (configs.enableConvexityFilter && !passesConvexity(contour, candidate, configs)) {
        refuse(verdict, Gate::kConvexity, candidate.convexRatio);
        return verdict;
    }
    const bool shaped = configs.useRadialContours ? passesConicShape(verdict, axes, perimeter, configs)
                                                  : passesFitError(verdict, configs);
    if (!shaped) return verdict;

    if (!isFullSize && configs.scale != 1) bringToFullSize(candidate, verdict.rect, configs.scale);
    candidate.area = verdict.rect.size.width * verdict.rect.size.height;
    return verdict;
}

Admission admitMarker(GateVerdict& verdict, MarkerList& markers) {
    Corner& candidate = verdict.candidate;
    for (std::size_t k = 0; k < markers.corners.size(); ++k) {
        Corner& known = markers.corners[k];
        const cv::Size2f& size = markers.rects[k].size;
        const double distance = std::sqrt(std::pow(candidate.x - known.x, 2) + std::pow(candidate.y - known.y, 2));
        const float reach = std::max({verdict.halfAxis, 0.5f * size.width, 0.5f * size.height});
        if (!(distance > 0 && distance < static_cast<double>(reach))) continue;
        if (!(candidate.circularity > known.circularity && known.fitError > candidate.fitError)) {
            return {Admission::kDropped, known.id};
        }
        candidate.id = known.id;
        known = candidate;
        markers.rects[k] = verdict.rect;
        return {Admission::kReplaced, candidate.id};
    }
    candidate.id = markers.nextId++;
    markers.corners.push_back(candidate);
    markers.rects.push_back(verdict.rect);
    return {Admission::kAdded, candidate.id};
}

}  // namespace kestrune
