// SPDX-License-Identifier: Apache-2.0
#include "ellipsedetection/rim_search.h"

#include <algorithm>
#include <cmath>
#include <numbers>
#include <opencv2/imgproc.hpp>

#include "ellipsedetection/contour_tree.h"

namespace kestrune {

namespace {

constexpr int kExtraMargin = 5;  ///< px beyond the reach of the smoothing, so that an edge and its slopes are inside

// Pixels over the box's perimeter, of a blob and of a contour: less is a fragment.
constexpr double kLeastPerimeterShare = 0.6;
// Pixels over the area of the ellipse in the box: less is a thin stroke across it.
constexpr double kLeastFill = 0.15;

Drop dropOf(const Nesting& nesting, std::size_t pixels) {
    Drop drop = below(DropCause::kNesting, nesting.share, nesting.least);
    drop.largest = nesting.largest;
    if (!nesting.isOpen) return drop;
    drop = {};
    drop.cause = DropCause::kOpenLine;
    drop.measured = static_cast<double>(pixels);
    return drop;
}

}  // namespace

SizeGate::SizeGate(const RimSettings& settings)
    : minPixels(kPixelsPerDiameter * settings.minDiameter),
      maxPixels(kPixelsPerDiameter * settings.maxDiameter),
      minDiameter(settings.minDiameter),
      maxDiameter(settings.maxDiameter),
      minAxisRatio(settings.minAxisRatio) {}

Drop SizeGate::judge(int width, int height, std::int64_t pixels) const {
    if (pixels < minPixels) return below(DropCause::kPixels, pixels, minPixels);
    if (pixels > maxPixels) return above(DropCause::kPixels, pixels, maxPixels);
    const int longer = std::max(width, height);
    const int shorter = std::min(width, height);
    if (longer > maxDiameter) return above(DropCause::kLongerSide, longer, maxDiameter);
    if (shorter < minDiameter) return below(DropCause::kShorterSide, shorter, minDiameter);
    const float ratio = static_cast<float>(shorter) / static_cast<float>(longer);
    if (minAxisRatio > ratio) return below(DropCause::kBoxRatio, ratio, minAxisRatio);
    const float share = static_cast<float>(pixels) / static_cast<float>(2 * (width + height));
    if (kLeastPerimeterShare > share) return below<double>(DropCause::kPerimeterShare, share, kLeastPerimeterShare);
    return {};
}

Drop SizeGate::judgeBlob(const cv::Rect& box, int area) const {
    const Drop drop = judge(box.width, box.height, area);
    if (drop) return drop;
    const auto fill = static_cast<float>(area / (box.width * std::numbers::pi * box.height * 0.25));
    if (kLeastFill > fill) return below<double>(DropCause::kFill, fill, kLeastFill);
    return {};
}

int windowMargin(float sigma) {
    return static_cast<int>(std::ceil(3.0 * sigma)) + kExtraMargin;
}

cv::Rect windowOf(const cv::Rect& blob, int scale, int margin, const cv::Size& fullSize) {
    return cv::Rect(blob.x * scale - margin, blob.y * scale - margin, blob.width * scale + 2 * margin,
                    blob.height * scale + 2 * margin) &
           cv::Rect({}, fullSize);
}

std::size_t appendSurvivors(std::vector<std::vector<cv::Point>>& contours, const std::vector<cv::Vec4i>& hierarchy,
                            const SizeGate& gate, cv::Point origin, std::vector<std::vector<cv::Point>>& candidates,
                            Drops* drops) {
    const std::vector<double> areas = signedAreas(contours, hierarchy);
    std::size_t longest = 0;
    for (std::size_t k = 0; k < contours.size(); ++k) {
        std::vector<cv::Point>& contour = contours[k];
        longest = std::max(longest, contour.size());
        const Nesting nesting = nestingOf(static_cast<int>(k), areas, hierarchy);
        if (!nesting.isRim() && drops == nullptr) continue;
        const cv::Rect box = cv::boundingRect(contour);
        const Drop drop = nesting.isRim() ? gate.judge(box.width, box.height, static_cast<std::int64_t>(contour.size()))
                                          : dropOf(nesting, contour.size());
        if (drop) {
            note(drops, Met::kContour, drop, box + origin);
            continue;
        }
        for (cv::Point& point : contour) point += origin;
        candidates.push_back(std::move(contour));
    }
    return longest;
}

}  // namespace kestrune
