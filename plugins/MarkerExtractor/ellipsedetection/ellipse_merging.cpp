// SPDX-License-Identifier: Apache-2.0
#include <algorithm>
#include <cmath>
#include <numeric>

#include "ellipsedetection/conic_record.h"

namespace kestrune {

namespace {

constexpr double kLeastAxis = 1e-6;  ///< px: below it two widths have no relative difference

double axisProduct(const PolarEllipse& ellipse) {
    return ellipse.record.ellipse.size.width * ellipse.record.ellipse.size.height;
}

bool areLike(const PolarEllipse& kept, const PolarEllipse& other, double shapeTolerance, double centreTolerance) {
    if (kept.brightInside != other.brightInside) return false;
    const cv::RotatedRect& b = kept.record.ellipse;
    const cv::RotatedRect& e = other.record.ellipse;
    const double dx = static_cast<double>(b.center.x) - e.center.x;
    const double dy = static_cast<double>(b.center.y) - e.center.y;
    const float axes = b.size.width + b.size.height;
    if (!(std::sqrt(dx * dx + dy * dy) < axes * 0.5 * centreTolerance)) return false;
    const double width = std::max(b.size.width, e.size.width);
    const double height = std::max(b.size.height, e.size.height);
    if (!(width >= kLeastAxis && height >= kLeastAxis)) return false;
    const double u = (static_cast<double>(e.size.width) - b.size.width) / width;
    const double v = (static_cast<double>(e.size.height) - b.size.height) / height;
    return std::sqrt((u * u + v * v) * 0.5) < shapeTolerance;
}

}  // namespace

void mergeSimilarEllipses(const std::vector<PolarEllipse>& ellipses,
                          const std::vector<std::vector<cv::Point>>& contours, std::vector<PolarEllipse>& merged,
                          std::vector<std::vector<cv::Point>>& mergedContours, double shapeTolerance,
                          double centreTolerance) {
    merged.clear();
    mergedContours.clear();
    std::vector<std::size_t> order(ellipses.size());
    std::iota(order.begin(), order.end(), std::size_t{0});
    std::stable_sort(order.begin(), order.end(), [&ellipses](std::size_t a, std::size_t b) {
        return axisProduct(ellipses[a]) < axisProduct(ellipses[b]);
    });
    for (const std::size_t index : order) {
        const PolarEllipse& ellipse = ellipses[index];
        const auto like = std::find_if(merged.begin(), merged.end(), [&](const PolarEllipse& kept) {
            return areLike(kept, ellipse, shapeTolerance, centreTolerance);
        });
        if (like == merged.end()) {
            merged.push_back(ellipse);
            mergedContours.push_back(contours[index]);
        } else if (like->record.fitResidual > ellipse.record.fitResidual) {
            *like = ellipse;
            mergedContours[static_cast<std::size_t>(like - merged.begin())] = contours[index];
        }
    }
}

}  // namespace kestrune
