// SPDX-License-Identifier: Apache-2.0
#include "MarkerExtractor/extraction/rim_markers.h"

#include <algorithm>

#include "kestrune_geometry/conic.h"

namespace kestrune {

namespace {

constexpr double kInside = -1e-6;  ///< largest value of the conic at a point that counts as inside

std::array<cv::Point2f, 4> extremesOf(const std::vector<cv::Point2f>& contour) {
    // The first of several smallest and the last of several largest.
    const auto byX = std::ranges::minmax_element(contour, {}, &cv::Point2f::x);
    const auto byY = std::ranges::minmax_element(contour, {}, &cv::Point2f::y);
    return {*byX.min, *byY.min, *byX.max, *byY.max};
}

bool isInside(const cv::Point2d& point, const Corner& marker) {
    return geometry::valueAt(marker.conic, point.x, point.y) <= kInside;
}

}  // namespace

void admitRim(Corner&& marker, bool brightInside, std::size_t candidate, std::vector<RimMarker>& markers) {
    const std::array<cv::Point2f, 4> extremes = extremesOf(marker.contour);
    for (std::size_t k = markers.size(); k-- > 0;) {
        const RimMarker& known = markers[k];
        if (known.brightInside != brightInside) continue;
        if (geometry::valueAt(marker.conic, known.corner.x, known.corner.y) > kInside) continue;
        const bool isWithin = std::ranges::all_of(
            known.extremePoints, [&marker](const cv::Point2f& point) { return isInside(point, marker); });
        if (isWithin || marker.fitResidual > known.corner.fitResidual) return;
        markers.erase(markers.begin() + static_cast<std::ptrdiff_t>(k));
    }
    markers.push_back({std::move(marker), extremes, brightInside, candidate});
}

}  // namespace kestrune
