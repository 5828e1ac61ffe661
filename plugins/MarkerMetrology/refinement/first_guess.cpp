// SPDX-License-Identifier: Apache-2.0
#include "refinement/first_guess.h"

#include <algorithm>
#include <cmath>
#include <numbers>
#include <opencv2/imgproc.hpp>

namespace kestrune::refinement {

using geometry::SmoothEllipse;

namespace {

constexpr double kFirstReach = 3.9;   // px: the blur of an image in focus
constexpr double kReachChange = 0.5;  // px: a window that is so far from what the blur asks for is taken again
constexpr int kMostWindows = 4;
constexpr int kFewestFlat = 4;  // pixels that tell a level
// px: no image is so large. Points beyond it, or of no numbers, are no outline.
constexpr float kFarthestPoint = 1e6F;

/// Mean of the pixels within half a minor half axis of the centre, or the pixel there.
double middleLevel(const MarkerWindow& window, const SmoothEllipse& ellipse) {
    SmoothEllipse core = ellipse;
    core.s = std::max(0.71, 0.5 * ellipse.minorHalfAxis()), core.e1 = core.e2 = 0;
    double sum = 0, count = 0;
    for (int y = static_cast<int>(std::floor(core.y - core.s)); y <= core.y + core.s; ++y) {
        const RowInterval row = rowOf(core, y);
        for (int x = row.from; x <= row.to; ++x, ++count) sum += static_cast<double>(window.at(x, y));
    }
    return count > 0 ? sum / count : 0;
}

}  // namespace

std::optional<SmoothEllipse> ellipseOfRecord(const Corner& corner) {
    SmoothEllipse result;
    if (corner.conicValid) {
        cv::Matx33d dual;
        if (cv::invert(geometry::matrixOf(corner.conic), dual) != 0) {
            result = geometry::ellipseOfDual(dual);
            if (result.isFinite() && result.minorHalfAxis() > 0) return result;
        }
    }
    cv::RotatedRect rect = corner.ellipse;
    if (!(rect.size.width > 0 && rect.size.height > 0)) {
        const auto isPlace = [](const cv::Point2f& p) {
            return std::abs(p.x) < kFarthestPoint && std::abs(p.y) < kFarthestPoint;
        };
        if (corner.contour.size() < 5 || !std::ranges::all_of(corner.contour, isPlace)) return std::nullopt;
        rect = cv::fitEllipseDirect(corner.contour);
    }
    result = SmoothEllipse::of(rect);
    result.x = corner.x, result.y = corner.y;
    if (!result.isFinite() || !(result.minorHalfAxis() > 0)) return std::nullopt;
    return result;
}

std::optional<DiscModel> firstGuess(const cv::Mat& image, const SmoothEllipse& ellipse,
                                    const std::vector<Neighbour>& neighbours, MarkerWindow& window) {
    DiscModel guess;
    guess.ellipse = ellipse;
    double reach = kFirstReach;
    for (int i = 0; i < kMostWindows; ++i) {
        window.take(image, ellipse, reach, groundOf(ellipse, reach), neighbours);
        if (window.outside().count < kFewestFlat) return std::nullopt;
        guess.outside = window.outside().level();
        guess.inside = window.inside().count >= kFewestFlat ? window.inside().level() : middleLevel(window, ellipse);
        const double contrast = guess.contrast();
        if (contrast == 0) return std::nullopt;
        double area = 0;
        for (int k = 0; k < window.rimCount(); ++k) {
            const double m = (static_cast<double>(window.grey()[k]) - guess.outside) / contrast;
            area += m * (1 - m);
        }
        const double share = std::max(0.1, window.rimShare());
        const double total = std::max(0.0, area) / share * std::sqrt(std::numbers::pi) / ellipse.perimeter();
        guess.blur = std::clamp(std::sqrt(std::max(0.0, total * total - 1.0 / 12)), 0.4, kLargestBlur / 2);
        const double wanted = std::min(kReach * totalBlur(guess.blur), std::max(kFirstReach, ellipse.s));
        if (std::abs(wanted - reach) < kReachChange || wanted < reach) break;
        reach = wanted;
    }
    return guess;
}

}  // namespace kestrune::refinement
