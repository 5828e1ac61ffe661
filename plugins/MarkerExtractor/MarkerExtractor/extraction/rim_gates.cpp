// SPDX-License-Identifier: Apache-2.0
#include "MarkerExtractor/extraction/rim_gates.h"

#include <algorithm>
#include <cmath>
#include <numbers>
#include <opencv2/imgproc.hpp>

#include "MarkerExtractor/camera/undistort.h"
#include "MarkerExtractor/extraction/contour_verdict.h"
#include "ellipsedetection/contour_refinement.h"
#include "kestrune_geometry/conic.h"
#include "kestrune_geometry/contour_shape.h"

namespace kestrune {

namespace {

/// Pixels of a rim for each pixel of its diameter, over pi, for both ends of the range: three tenths of the smallest
/// rim may be missing, and a whole rim of eight-connected pixels, about 0.9 pi, is too long from 0.78 `maxDiameter` on.
constexpr double kRimShare = 0.7;
constexpr float kLeastDiameter = 1.0f;   ///< px, of a first ellipse
constexpr std::size_t kSpareLength = 2;  ///< a contour may run out and back along a line, before its pixels are sorted
constexpr std::size_t kLeastFitPoints = 5;  ///< what an ellipse needs
constexpr int kBorder = 1;  ///< px: a centre within it, or on the pixel beyond it, belongs to no whole marker
constexpr double kLooseResidual = 5.0;  ///< whole pixels are this much worse than refined points
constexpr double kLeastNormal = 1e-6;   ///< a shorter normal has no direction
constexpr float kLeastGradientSum = 0.1f;
constexpr double kLargestDarkShare = 0.95;  ///< dark over bright side
constexpr double kLeastHull = 0.8;          ///< hull over ellipse area
constexpr double kLargestHull = 1.25;
constexpr float kLeastAreaFactor = 4.0f;

double leastDiameterOf(const CicrleConfigs& configs) {
    return configs.minDiameter > kLeastDiameter ? configs.minDiameter : kLeastDiameter;
}

/// Pixels of the rim of a disc, in single precision like the settings.
float rimPixels(double diameter) {
    return static_cast<float>(diameter * (kRimShare * std::numbers::pi));
}

GateRule strict(GateRule rule, Ends ends = Ends::kOpen) {
    rule.ends = ends;
    rule.notANumber = NotANumber::kIsRefused;
    return rule;
}

bool isInImage(const cv::Point2f& centre, const cv::Size& size) {
    return centre.x > kBorder && centre.y > kBorder && static_cast<float>(size.width - 1 - kBorder) > centre.x &&
           static_cast<float>(size.height - 1 - kBorder) > centre.y;
}

/// Step across the rim, summed over its pixels: the image's gradient along the outward normal of the conic. Below 0
/// brightness grows inwards.
float gradientAlongNormal(const std::vector<cv::Point>& contour, const geometry::Conic& conic,
                          const RimImages& images) {
    float sum = 0;
    for (const cv::Point& point : contour) {
        const auto [nx, ny] = geometry::gradientAt(conic, point.x, point.y).val;
        const auto length = static_cast<float>(std::sqrt(nx * nx + ny * ny));
        if (!(length >= kLeastNormal)) continue;
        const float alongX = static_cast<float>(nx / length) * images.dx.at<float>(point - images.origin);
        const float alongY = static_cast<float>(ny / length) * images.dy.at<float>(point - images.origin);
        sum += alongY + alongX;
    }
    return sum;
}

/// Mean brightness on the rim and halfway to the centre.
struct Brightness {
    float edge, inside;

    /// The side that the gradient names as bright must be brighter by a twentieth: texture with a direction is not.
    bool showsContrast(bool brightInside, double largestDarkShare) const {
        return brightInside ? !(edge > largestDarkShare * inside) : !(inside > largestDarkShare * edge);
    }
};

/// The pixel halfway between a point and the centre of its ellipse, kept within the image.
class Halfway {
  public:
    Halfway(const cv::Point2f& centre, const cv::Size& size) : cx_(centre.x), cy_(centre.y), size_(size) {}

    cv::Point operator()(const cv::Point& point) const {
        const double x = (point.x - cx_) * 0.5 + cx_ + 0.5;
        const double y = (point.y - cy_) * 0.5 + cy_ + 0.5;
        return {std::clamp(static_cast<int>(x), 0, size_.width - 1),
                std::clamp(static_cast<int>(y), 0, size_.height - 1)};
    }

    /// The box that holds these pixels of all points of a box.
    cv::Rect operator()(const cv::Rect& box) const {
        return {(*this)(box.tl()), (*this)(box.br() - cv::Point(1, 1)) + cv::Point(1, 1)};
    }

  private:
    double cx_, cy_;
    cv::Size size_;
};

Brightness brightnessOf(const std::vector<cv::Point>& contour, const cv::Point2f& centre, const RimImages& images) {
    const Halfway halfway(centre, images.wholeSize());
    cv::Mat blurInside = images.blur16U;
    cv::Point origin = images.origin;
    if (images.whole != nullptr) {
        const cv::Rect part = halfway(cv::boundingRect(contour));
        if ((part & cv::Rect(origin, blurInside.size())) != part) {
            blurInside = images.whole->smoothed(part);
            origin = part.tl();
        }
    }
    std::int64_t edge = 0, inside = 0;
    for (const cv::Point& point : contour) {
        edge += images.blur16U.at<std::uint16_t>(point - images.origin);
        inside += blurInside.at<std::uint16_t>(halfway(point) - origin);
    }
    const auto count = static_cast<float>(contour.size());
    return {static_cast<float>(edge) / count, static_cast<float>(inside) / count};
}

bool allFinite(const std::vector<cv::Point2f>& points) {
    return std::ranges::all_of(
        points, [](const cv::Point2f& point) { return std::isfinite(point.x) && std::isfinite(point.y); });
}

/// The points in the order of their angle about their mean, equal angles as they come. Where a determinant comes out
/// small, the fit displaces each point by an amount that follows from its index, so that rows of points, as the
/// distinct pixels of a rim are, would be displaced row by row: an error of the axes that moves the centre as well.
/// Around the rim the displacements cancel.
std::vector<cv::Point2f> aroundTheirMean(const std::vector<cv::Point2f>& points) {
    cv::Point2d mean(0, 0);
    for (const cv::Point2f& point : points) mean += cv::Point2d(point);
    mean /= static_cast<double>(points.size());
    std::vector<std::pair<double, cv::Point2f>> order;
    order.reserve(points.size());
    for (const cv::Point2f& point : points) order.emplace_back(std::atan2(point.y - mean.y, point.x - mean.x), point);
    std::ranges::stable_sort(order, {}, &std::pair<double, cv::Point2f>::first);
    std::vector<cv::Point2f> sorted;
    sorted.reserve(points.size());
    for (const auto& [angle, point] : order) sorted.push_back(point);
    return sorted;
}

/// The first ellipse: its axes, its place and how well it fits.
void judgeFirstEllipse(const std::vector<cv::Point>& contour, const cv::Size& imageSize, const RimGates& gates,
                       RimVerdict& verdict) {
    const cv::RotatedRect rect = cv::fitEllipseDirect(contour);
    const auto [shorter, longer] = std::minmax(rect.size.width, rect.size.height);
    const GateRule& size = gates[Gate::kSize];
    const double area = rect.size.width * rect.size.height;
    if (verdict.fails(size, shorter > size.least ? longer : shorter)) return;
    if (!(area > size.least * size.least)) return verdict.refuse(size, longer);
    if (!isInImage(rect.center, imageSize)) return verdict.refuse(gates[Gate::kPlace], rect.center.x);

    EllipseRecord& record = verdict.ellipse.record;
    fitConicToPixels(record, rect, contour);
    if (verdict.fails(gates[Gate::kAxisRatio], shorter / longer)) return;
    verdict.fails(gates[Gate::kResidual], record.fitResidual);
}

/// The step across the rim.
void judgeStep(const std::vector<cv::Point>& contour, const RimImages& images, const RimGates& gates,
               RimVerdict& verdict) {
    const EllipseRecord& record = verdict.ellipse.record;
    const float gradient = gradientAlongNormal(contour, record.conic, images);
    if (!gates[Gate::kGradient].passes(std::abs(gradient))) return verdict.refuse(gates[Gate::kGradient], gradient);
    verdict.ellipse.brightInside = gradient < 0;
    const Brightness mean = brightnessOf(contour, record.ellipse.center, images);
    const GateRule& contrast = gates[Gate::kContrast];
    if (!mean.showsContrast(verdict.ellipse.brightInside, contrast.largest)) {
        verdict.refuse(contrast, mean.inside / mean.edge);
    }
}

}  // namespace

RimGates::RimGates(const CicrleConfigs& c)
    : GateTable{
          between(Gate::kLength, "length", "{} pi times minDiameter {} to maxDiameter {}, in pixels",
                  rimPixels(leastDiameterOf(c)), rimPixels(c.maxDiameter))
              .telling({kRimShare, c.minDiameter, c.maxDiameter}),
          strict(between(Gate::kSize, "size", "axes between minDiameter {} and maxDiameter {}", leastDiameterOf(c),
                         c.maxDiameter)
                     .telling({c.minDiameter, c.maxDiameter})),
          inWords(Gate::kPlace, "place", "a centre within the image"),
          strict(atLeast(Gate::kAxisRatio, "axis ratio", "minAxisRatio {}", c.minAxisRatio)),
          strict(atMost(Gate::kResidual, "fit residual", "{} times maxFitResidual {}, before refinement",
                        c.maxFitResidual * kLooseResidual)
                     .telling({kLooseResidual, c.maxFitResidual})),
          strict(atLeast(Gate::kGradient, "gradient", "{} or more in sum across the rim", kLeastGradientSum),
                 Ends::kClosed),
          atMost(Gate::kContrast, "contrast", "the bright side a twentieth brighter, halfway to the centre over rim",
                 kLargestDarkShare),
          strict(between(Gate::kHull, "hull", "hull over ellipse area, {} to {}", kLeastHull, kLargestHull)),
          atLeast(Gate::kPoints, "points", "five refined points", kLeastFitPoints),
          atLeast(Gate::kFinalSize, "size", "axes whose product is {} times the square of minDiameter {}",
                  c.minDiameter)
              .telling({kLeastAreaFactor, c.minDiameter}),
          inWords(Gate::kFinalPlace, "place", "a centre within the image"),
          atLeast(Gate::kFinalAxisRatio, "axis ratio", "minAxisRatio {}", c.minAxisRatio),
          strict(atMost(Gate::kFinalResidual, "fit residual", "maxFitResidual {}", c.maxFitResidual), Ends::kClosed)} {}

RimVerdict judgeRim(const std::vector<cv::Point>& contour, const RimImages& images, const RimGates& gates,
                    RimScratch& scratch) {
    RimVerdict verdict;
    GateRule unsorted = gates[Gate::kLength];
    unsorted.largest *= kSpareLength;
    unsorted.least = std::max(unsorted.least, static_cast<double>(kLeastFitPoints));
    if (verdict.fails(unsorted, static_cast<double>(contour.size()))) return verdict;
    judgeFirstEllipse(contour, images.wholeSize(), gates, verdict);
    if (verdict.accepted()) judgeStep(contour, images, gates, verdict);
    if (!verdict.accepted()) return verdict;

    scratch.pixels.assign(contour);
    if (verdict.fails(gates[Gate::kLength], static_cast<double>(scratch.pixels.size()))) return verdict;
    const double hull = scratch.pixels.hullArea() / geometry::ellipseArea(verdict.ellipse.record.ellipse.size);
    if (!verdict.fails(gates[Gate::kHull], hull)) verdict.points = scratch.pixels.pixels();
    return verdict;
}

MarkerVerdict measureRim(const std::vector<cv::Point>& points, const RimImages& images, const RimGates& gates,
                         const std::optional<LensModel>& lens) {
    return measureRefinedRim(
        refineContourOnGradient(points, images.grad.ptr<float>(), images.grad.rows, images.grad.cols),
        images.blur16U.size(), gates, lens);
}

MarkerVerdict measureRefinedRim(std::vector<cv::Point2f>&& points, const cv::Size& size, const RimGates& gates,
                                const std::optional<LensModel>& lens) {
    MarkerVerdict verdict;
    Corner& marker = verdict.marker;
    marker.x = marker.y = 0;  // travels along with the contour and is replaced by the fit
    marker.contour = std::move(points);
    if (lens && !marker.contour.empty()) undistortCorner(marker, lens->intrinsic, lens->distortion);
    const auto count = static_cast<double>(marker.contour.size());
    if (verdict.fails(gates[Gate::kPoints], count)) return verdict;
    if (!allFinite(marker.contour)) {
        verdict.refuse(gates[Gate::kPoints], count);
        return verdict;
    }

    const cv::RotatedRect rect = cv::fitEllipseDirect(aroundTheirMean(marker.contour));
    fillConic(marker, rect);
    const auto [shorter, longer] = std::minmax(rect.size.width, rect.size.height);
    const GateRule& axes = gates[Gate::kFinalSize];
    const auto least = static_cast<float>(axes.least);
    if (!geometry::isFinite(rect) || !axes.passes(shorter) ||
        kLeastAreaFactor * least * least > rect.size.width * rect.size.height) {
        verdict.refuse(axes, shorter);
    } else if (!isInImage(rect.center, size)) {
        verdict.refuse(gates[Gate::kFinalPlace], rect.center.x);
    } else if (!verdict.fails(gates[Gate::kFinalAxisRatio], shorter / longer)) {
        marker.x = rect.center.x;
        marker.y = rect.center.y;
        if (verdict.fails(gates[Gate::kFinalResidual], marker.fitResidual)) {  // NaN too, of an axis of length 0
            writeReason(marker.fitText, "fit_residual", marker.fitResidual);
        }
    }
    return verdict;
}

}  // namespace kestrune
