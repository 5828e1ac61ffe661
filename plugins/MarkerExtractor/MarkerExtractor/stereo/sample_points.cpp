// SPDX-License-Identifier: Apache-2.0
#include <algorithm>

#include "MarkerExtractor/stereo/rectified_match.h"

namespace kestrune {

namespace {

/// Contour points that an extreme of the contour is the mean of. One alone would carry its whole noise.
constexpr std::size_t kExtremePoints = 3;

using Contour = std::vector<cv::Point2f>;

bool leftOf(const cv::Point2f& a, const cv::Point2f& b) {
    return ascendingNanLast(a.x, b.x);
}
bool above(const cv::Point2f& a, const cv::Point2f& b) {
    return ascendingNanLast(a.y, b.y);
}

/// Mean of the first of three neighbours in the list, in the single precision of the contour.
cv::Point2d meanOfThree(Contour::const_iterator first) {
    const float x = (first[0].x + first[1].x + first[2].x) / 3.0f;
    const float y = (first[0].y + first[1].y + first[2].y) / 3.0f;
    return {x, y};
}

/// Where one half of the contour crosses a row: midway between the last point above the row and the first one that is
/// not. False if the half lies on one side of it.
bool crossRow(Contour half, float row, cv::Point2d& crossing) {
    std::stable_sort(half.begin(), half.end(), above);
    const auto below =
        std::lower_bound(half.begin(), half.end(), row, [](const cv::Point2f& p, float y) { return p.y < y; });
    if (below == half.begin() || below == half.end()) return false;
    const cv::Point2f middle = (below[0] + below[-1]) * 0.5f;
    crossing = middle;
    return true;
}

bool isFinite(const cv::Point2d& p) {
    return std::isfinite(p.x) && std::isfinite(p.y);
}

}  // namespace

std::vector<cv::Point2d> samplePoints(const Corner& corner) {
    if (corner.contour.size() < kExtremePoints) return {};
    Contour contour = corner.contour;
    const auto column = static_cast<float>(corner.x);
    const auto row = static_cast<float>(corner.y);

    std::vector<cv::Point2d> samples(kSampleCount);
    samples[kCentre] = {corner.x, corner.y};
    std::stable_sort(contour.begin(), contour.end(), leftOf);
    const auto split =
        std::partition_point(contour.begin(), contour.end(), [column](const cv::Point2f& p) { return p.x < column; });
    if (!crossRow(Contour(contour.begin(), split), row, samples[kRowLeft]) ||
        !crossRow(Contour(split, contour.end()), row, samples[kRowRight])) {
        return {};
    }
    samples[kLeftEnd] = meanOfThree(contour.begin());
    samples[kRightEnd] = meanOfThree(contour.end() - kExtremePoints);
    std::stable_sort(contour.begin(), contour.end(), above);
    samples[kTop] = meanOfThree(contour.begin());
    samples[kBottom] = meanOfThree(contour.end() - kExtremePoints);

    if (!std::all_of(samples.begin(), samples.end(), isFinite)) return {};
    return samples;
}

}  // namespace kestrune
