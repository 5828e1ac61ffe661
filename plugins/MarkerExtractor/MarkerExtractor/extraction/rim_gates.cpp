// SPDX-License-Identifier: Apache-2.0
#include "MarkerExtractor/extraction/rim_gates.h"

#include <algorithm>
#include <cmath>
#include <numbers>
#include <opencv2/imgproc.hpp>

#include "MarkerExtractor/camera/undistort.h"
#include "MarkerExtractor/extraction/gate_parts.h"
#include "kestrune_geometry/conic.h"
#include "kestrune_geometry/contour_shape.h"

namespace kestrune {

namespace {

/// Pixels of a rim for each pixel of its diameter, 0.7 pi, for both ends of the range: three tenths of the smallest rim
/// may be missing, and a whole rim of eight-connected pixels, about 0.9 pi, is too long from 0.78 `maxDiameter` on.
constexpr double kPointsPerDiameter = 0.7 * std::numbers::pi;
constexpr float kSpareLength = 2.0f;  ///< a contour may run out and back along a line, before its pixels are sorted
constexpr std::size_t kUsualLength = 1024;  ///< pixels for which lists have room from the start
constexpr std::size_t kLeastFitPoints = 5;  ///< what an ellipse needs
constexpr int kBorder = 1;  ///< px: a centre within it, or on the pixel beyond it, belongs to no whole marker
constexpr double kLooseResidual = 5.0;  ///< whole pixels are this much worse than refined points
constexpr double kLeastNormal = 1e-6;   ///< a shorter normal has no direction
constexpr float kLeastGradientSum = 0.1f;
constexpr double kLargestDarkShare = 0.95;  ///< dark over bright side
constexpr double kLeastHull = 0.8;          ///< hull over ellipse area
constexpr double kLargestHull = 1.25;
constexpr float kLeastAreaFactor = 4.0f;
constexpr double kInside = -1e-6;  ///< largest value of the conic at a point that counts as inside

/// Range of the number of pixels on a rim, in single precision like the settings.
struct LengthGate {
    explicit LengthGate(const CicrleConfigs& configs)
        : leastDiameter(configs.minDiameter > 1.0f ? static_cast<double>(configs.minDiameter) : 1.0),
          min(static_cast<float>(leastDiameter * kPointsPerDiameter)),
          max(static_cast<float>(static_cast<double>(configs.maxDiameter) * kPointsPerDiameter)) {}
    double leastDiameter;  ///< px; of a first ellipse
    float min, max;

    bool passes(std::size_t count, float spare) const {
        const auto n = static_cast<float>(count);
        return !(min > n || n > spare * max);
    }
};

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
        const float alongX = static_cast<float>(nx / length) * images.dx.at<float>(point);
        const float alongY = static_cast<float>(ny / length) * images.dy.at<float>(point);
        sum += alongY + alongX;
    }
    return sum;
}

/// Mean brightness on the rim and halfway to the centre.
struct Brightness {
    float edge, inside;
};

Brightness brightnessOf(const std::vector<cv::Point>& contour, const cv::Point2f& centre, const cv::Mat& blur16U) {
    const double cx = centre.x;
    const double cy = centre.y;
    std::int64_t edge = 0, inside = 0;
    for (const cv::Point& point : contour) {
        const double x = (point.x - cx) * 0.5 + cx + 0.5;
        const double y = (point.y - cy) * 0.5 + cy + 0.5;
        edge += blur16U.at<std::uint16_t>(point);
        inside += blur16U.at<std::uint16_t>(std::clamp(static_cast<int>(y), 0, blur16U.rows - 1),
                                            std::clamp(static_cast<int>(x), 0, blur16U.cols - 1));
    }
    const auto count = static_cast<float>(contour.size());
    return {static_cast<float>(edge) / count, static_cast<float>(inside) / count};
}

/// The side that the gradient names as bright must be brighter by a twentieth: texture with a direction is not.
bool showsContrast(const Brightness& mean, bool brightInside) {
    return brightInside ? !(mean.edge > kLargestDarkShare * mean.inside)
                        : !(mean.inside > kLargestDarkShare * mean.edge);
}

/// Distinct pixels, by rows and then by columns: sorted as whole numbers with the row in the upper half.
std::vector<cv::Point> distinctPixels(const std::vector<cv::Point>& points, std::vector<std::uint64_t>& keys) {
    keys.clear();
    for (const cv::Point& point : points) {
        keys.push_back(static_cast<std::uint64_t>(static_cast<std::uint32_t>(point.y)) << 32 |
                       static_cast<std::uint32_t>(point.x));
    }
    std::sort(keys.begin(), keys.end());
    keys.erase(std::unique(keys.begin(), keys.end()), keys.end());
    std::vector<cv::Point> pixels;
    pixels.reserve(keys.size());
    for (const std::uint64_t key : keys) {
        pixels.emplace_back(static_cast<int>(key & 0xffffffffU), static_cast<int>(key >> 32));
    }
    return pixels;
}

bool allFinite(const std::vector<cv::Point2f>& points) {
    return std::all_of(points.begin(), points.end(),
                       [](const cv::Point2f& point) { return std::isfinite(point.x) && std::isfinite(point.y); });
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
    std::stable_sort(order.begin(), order.end(), [](const auto& a, const auto& b) { return a.first < b.first; });
    std::vector<cv::Point2f> sorted;
    sorted.reserve(points.size());
    for (const auto& [angle, point] : order) sorted.push_back(point);
    return sorted;
}

std::array<cv::Point2f, 4> extremesOf(const std::vector<cv::Point2f>& contour) {
    const auto byX =
        std::minmax_element(contour.begin(), contour.end(), [](const auto& a, const auto& b) { return a.x < b.x; });
    const auto byY =
        std::minmax_element(contour.begin(), contour.end(), [](const auto& a, const auto& b) { return a.y < b.y; });
    return {*byX.first, *byY.first, *byX.second, *byY.second};
}

void eraseMarker(RimMarkers& markers, std::ptrdiff_t k) {
    markers.corners.erase(markers.corners.begin() + k);
    markers.rects.erase(markers.rects.begin() + k);
    markers.extremePoints.erase(markers.extremePoints.begin() + k);
    markers.polarity.erase(markers.polarity.begin() + k);
}

RimGate firstStage(const std::vector<cv::Point>& contour, const RimImages& images, const CicrleConfigs& configs,
                   RimScratch& scratch, RimVerdict& verdict) {
    const LengthGate length(configs);
    const auto count = static_cast<double>(contour.size());
    if (contour.size() < kLeastFitPoints || !length.passes(contour.size(), kSpareLength)) {
        return refuse(verdict, RimGate::kLength, count);
    }
    const cv::RotatedRect rect = cv::fitEllipseDirect(contour);
    const auto [shorter, longer] = std::minmax(rect.size.width, rect.size.height);
    const double area = rect.size.width * rect.size.height;
    const double least = length.leastDiameter;
    if (!(shorter > least && configs.maxDiameter > longer && area > least * least)) {
        return refuse(verdict, RimGate::kSize, !(shorter > least) ? shorter : longer);
    }
    if (!isInImage(rect.center, images.blur16U.size())) return refuse(verdict, RimGate::kPlace, rect.center.x);

    EllipseRecord& record = verdict.ellipse.record;
    fitConicToPixels(record, rect, contour);
    if (!(shorter / longer > configs.minAxisRatio)) return refuse(verdict, RimGate::kAxisRatio, shorter / longer);
    if (!(configs.maxFitResidual * kLooseResidual > record.fitResidual)) {
        return refuse(verdict, RimGate::kResidual, record.fitResidual);
    }

    const float gradient = gradientAlongNormal(contour, record.conic, images);
    if (!(std::abs(gradient) >= kLeastGradientSum)) return refuse(verdict, RimGate::kGradient, gradient);
    verdict.ellipse.brightInside = gradient < 0;
    const Brightness mean = brightnessOf(contour, rect.center, images.blur16U);
    if (!showsContrast(mean, verdict.ellipse.brightInside)) {
        return refuse(verdict, RimGate::kContrast, mean.inside / mean.edge);
    }

    std::vector<cv::Point> pixels = distinctPixels(contour, scratch.keys);
    if (!length.passes(pixels.size(), 1.0f)) {
        return refuse(verdict, RimGate::kLength, static_cast<double>(pixels.size()));
    }
    const double hull = geometry::hullArea(pixels, scratch.hull) / geometry::ellipseArea(rect.size);
    if (!(hull > kLeastHull && kLargestHull > hull)) return refuse(verdict, RimGate::kHull, hull);
    verdict.points = std::move(pixels);
    return RimGate::kNone;
}

RimGate secondStage(const std::vector<cv::Point>& points, const RimImages& images, const CicrleConfigs& configs,
                    const LensModel& lens, MarkerVerdict& verdict) {
    Corner& marker = verdict.marker;
    marker.x = marker.y = 0;  // travels along with the contour and is replaced by the fit
    marker.contour = refineContourOnGradient(points, images.grad.ptr<float>(), images.grad.rows, images.grad.cols);
    if (!configs.skipUndistort && !marker.contour.empty()) undistortCorner(marker, lens.intrinsic, lens.distortion);
    if (marker.contour.size() < kLeastFitPoints || !allFinite(marker.contour)) {
        return refuse(verdict, RimGate::kPoints, static_cast<double>(marker.contour.size()));
    }

    const cv::RotatedRect rect = cv::fitEllipseDirect(aroundTheirMean(marker.contour));
    fillConic(marker, rect);
    const auto [shorter, longer] = std::minmax(rect.size.width, rect.size.height);
    const float least = configs.minDiameter;
    if (!geometry::isFinite(rect) || least > shorter ||
        kLeastAreaFactor * least * least > rect.size.width * rect.size.height) {
        return refuse(verdict, RimGate::kFinalSize, shorter);
    }
    if (!isInImage(rect.center, images.blur16U.size())) return refuse(verdict, RimGate::kFinalPlace, rect.center.x);
    if (configs.minAxisRatio > shorter / longer) return refuse(verdict, RimGate::kFinalAxisRatio, shorter / longer);
    marker.x = rect.center.x;
    marker.y = rect.center.y;
    if (!(marker.fitResidual <= configs.maxFitResidual)) {  // also one that is not a number, of an axis of length 0
        writeReason(marker.fitText, "fit_residual", marker.fitResidual);
        return refuse(verdict, RimGate::kFinalResidual, marker.fitResidual);
    }
    return RimGate::kNone;
}

}  // namespace

RimScratch::RimScratch() {
    hull.reserve(kUsualLength);
    keys.reserve(kUsualLength);
}

RimVerdict judgeRim(const std::vector<cv::Point>& contour, const RimImages& images, const CicrleConfigs& configs,
                    RimScratch& scratch) {
    RimVerdict verdict;
    firstStage(contour, images, configs, scratch, verdict);
    return verdict;
}

MarkerVerdict measureRim(const std::vector<cv::Point>& points, const RimImages& images, const CicrleConfigs& configs,
                         const LensModel& lens) {
    MarkerVerdict verdict;
    secondStage(points, images, configs, lens, verdict);
    return verdict;
}

bool admitRim(Corner&& marker, bool brightInside, RimMarkers& markers) {
    const std::array<cv::Point2f, 4> extremes = extremesOf(marker.contour);
    for (std::size_t k = markers.corners.size(); k-- > 0;) {
        if (markers.polarity[k] != brightInside) continue;
        const Corner& known = markers.corners[k];
        if (geometry::valueAt(marker.conic, known.x, known.y) > kInside) continue;
        const auto& rim = markers.extremePoints[k];
        const bool isWithin = std::all_of(rim.begin(), rim.end(), [&marker](const cv::Point2f& point) {
            return geometry::valueAt(marker.conic, point.x, point.y) <= kInside;
        });
        if (isWithin || marker.fitResidual > known.fitResidual) return false;
        eraseMarker(markers, static_cast<std::ptrdiff_t>(k));
    }
    markers.rects.push_back(marker.ellipse);
    markers.extremePoints.push_back(extremes);
    markers.polarity.push_back(brightInside);
    markers.corners.push_back(std::move(marker));
    return true;
}

}  // namespace kestrune
