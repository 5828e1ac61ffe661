// SPDX-License-Identifier: Apache-2.0
#include "ellipsedetection/ellipse_merging.h"

#include <algorithm>
#include <cmath>
#include <numeric>

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

/// What tells of most ellipses that they are not like a kept one, side by side: with many markers nearly all pairs are
/// looked at.
struct Vicinity {
    Vicinity(const PolarEllipse& kept, double centreTolerance)
        : x(kept.record.ellipse.center.x),
          y(kept.record.ellipse.center.y),
          reach((kept.record.ellipse.size.width + kept.record.ellipse.size.height) * 0.5 * centreTolerance) {}

    /// The distance of centres is no less than either of its components, rounded as they are.
    bool mayHold(const cv::Point2f& centre) const {
        return std::abs(x - centre.x) < reach && std::abs(y - centre.y) < reach;
    }

    double x, y, reach;
};

}  // namespace

Merging mergeAlike(const std::vector<const PolarEllipse*>& ellipses, double shapeTolerance, double centreTolerance) {
    std::vector<std::size_t> order(ellipses.size());
    std::iota(order.begin(), order.end(), std::size_t{0});
    std::ranges::stable_sort(order, {}, [&ellipses](std::size_t index) { return axisProduct(*ellipses[index]); });
    Merging merging;
    std::vector<Vicinity> vicinities;                  // of the kept ones
    std::vector<std::size_t> groups(ellipses.size());  // of each ellipse: its place in `kept`
    for (const std::size_t index : order) {
        const PolarEllipse& ellipse = *ellipses[index];
        std::size_t group = 0;
        while (group < vicinities.size() &&
               !(vicinities[group].mayHold(ellipse.record.ellipse.center) &&
                 areLike(*ellipses[merging.kept[group]], ellipse, shapeTolerance, centreTolerance))) {
            ++group;
        }
        groups[index] = group;
        if (group == vicinities.size()) {
            merging.kept.push_back(index);
            vicinities.emplace_back(ellipse, centreTolerance);
        } else if (ellipses[merging.kept[group]]->record.fitResidual > ellipse.record.fitResidual) {
            merging.kept[group] = index;
            vicinities[group] = Vicinity(ellipse, centreTolerance);
        }
    }
    merging.into.reserve(groups.size());
    for (const std::size_t group : groups) merging.into.push_back(merging.kept[group]);
    return merging;
}

void mergeSimilarEllipses(const std::vector<PolarEllipse>& ellipses,
                          const std::vector<std::vector<cv::Point>>& contours, std::vector<PolarEllipse>& merged,
                          std::vector<std::vector<cv::Point>>& mergedContours, double shapeTolerance,
                          double centreTolerance) {
    std::vector<const PolarEllipse*> pointers;
    pointers.reserve(ellipses.size());
    for (const PolarEllipse& ellipse : ellipses) pointers.push_back(&ellipse);
    merged.clear();
    mergedContours.clear();
    for (const std::size_t index : mergeAlike(pointers, shapeTolerance, centreTolerance).kept) {
        merged.push_back(ellipses[index]);
        mergedContours.push_back(contours[index]);
    }
}

}  // namespace kestrune
