// SPDX-License-Identifier: Apache-2.0
#include "MarkerExtractor/stereo/sample_points.h"

#include <algorithm>
#include <cmath>
#include <span>

#include "MarkerExtractor/stereo/nan_last.h"

namespace kestrune {

namespace {

/// Contour points that an extreme of the contour is the mean of. One alone would carry its whole noise.
constexpr std::size_t kExtremePoints = 3;

using Contour = std::vector<cv::Point2f>;
using Points = std::span<const cv::Point2f>;

/// Mean of three points, in the single precision of the contour.
cv::Point2d meanOfThree(Points p) {
    const float x = (p[0].x + p[1].x + p[2].x) / 3.0f;
    const float y = (p[0].y + p[1].y + p[2].y) / 3.0f;
    return {x, y};
}

/// Where one half of the contour crosses a row: midway between the last point above the row and the first one that is
/// not; nowhere if the half lies on one side of it.
std::optional<cv::Point2d> crossingOf(Points points, float row) {
    Contour half(points.begin(), points.end());
    std::ranges::stable_sort(half, AscendingNanLast(), &cv::Point2f::y);
    const auto below = std::ranges::lower_bound(half, row, {}, &cv::Point2f::y);
    if (below == half.begin() || below == half.end()) return std::nullopt;
    return (below[0] + below[-1]) * 0.5f;
}

bool isFinite(const cv::Point2d& p) {
    return std::isfinite(p.x) && std::isfinite(p.y);
}

}  // namespace

std::optional<Samples> samplePoints(const Corner& corner) {
    if (corner.contour.size() < kExtremePoints) return std::nullopt;
    Contour contour = corner.contour;
    const auto column = static_cast<float>(corner.x);
    const auto row = static_cast<float>(corner.y);

    Samples samples;
    samples[kCentre] = {corner.x, corner.y};
    std::ranges::stable_sort(contour, AscendingNanLast(), &cv::Point2f::x);
    const auto split =
        std::partition_point(contour.begin(), contour.end(), [column](const cv::Point2f& p) { return p.x < column; });
    const std::optional<cv::Point2d> rowLeft = crossingOf({contour.begin(), split}, row);
    const std::optional<cv::Point2d> rowRight = crossingOf({split, contour.end()}, row);
    if (!rowLeft || !rowRight) return std::nullopt;
    samples[kRowLeft] = *rowLeft;
    samples[kRowRight] = *rowRight;
    samples[kLeftEnd] = meanOfThree(Points(contour).first(kExtremePoints));
    samples[kRightEnd] = meanOfThree(Points(contour).last(kExtremePoints));
    std::ranges::stable_sort(contour, AscendingNanLast(), &cv::Point2f::y);
    samples[kTop] = meanOfThree(Points(contour).first(kExtremePoints));
    samples[kBottom] = meanOfThree(Points(contour).last(kExtremePoints));

    if (!std::ranges::all_of(samples, isFinite)) return std::nullopt;
    return samples;
}

}  // namespace kestrune
