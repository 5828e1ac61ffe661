// SPDX-License-Identifier: Apache-2.0
#include "ellipsedetection/contour_tree.h"

#include <cmath>
#include <limits>
#include <opencv2/imgproc.hpp>

#include "ellipsedetection/pixel_set.h"

namespace kestrune {

namespace {

// Places of an entry of the hierarchy.
constexpr int kNext = 0;
constexpr int kChild = 2;
constexpr int kParent = 3;

double at(const std::vector<double>& areas, int index) {
    return areas[static_cast<std::size_t>(index)];
}

double areaOfChildren(int firstChild, const std::vector<double>& areas, const std::vector<cv::Vec4i>& hierarchy) {
    double sum = 0;
    for (int child = firstChild; child >= 0; child = hierarchy[static_cast<std::size_t>(child)][kNext]) {
        sum += std::abs(at(areas, child));
    }
    return sum;
}

}  // namespace

std::vector<double> signedAreas(const std::vector<std::vector<cv::Point>>& contours,
                                const std::vector<cv::Vec4i>& hierarchy) {
    std::vector<double> areas(contours.size(), 0.0);
    PixelSet pixels;
    for (std::size_t k = 0; k < contours.size(); ++k) {
        const bool isAlone = hierarchy[k][kChild] < 0 && hierarchy[k][kParent] < 0;
        if (isAlone || contours[k].size() < 3) continue;
        if (hierarchy[k][kChild] < 0) {
            pixels.assign(contours[k]);
            areas[k] = pixels.hullArea();
        } else {
            areas[k] = cv::contourArea(contours[k], true);
        }
    }
    return areas;
}

Nesting nestingOf(int index, const std::vector<double>& areas, const std::vector<cv::Vec4i>& hierarchy) {
    const cv::Vec4i& links = hierarchy[static_cast<std::size_t>(index)];
    const int parent = links[kParent];
    if (links[kChild] >= 0) {
        // No bound from above here: what an outline of no area holds is settled by the gates that follow.
        const auto share =
            static_cast<float>(std::abs(areaOfChildren(links[kChild], areas, hierarchy) / at(areas, index)));
        return {false, share, parent < 0 ? kLeastShareOutermost : kLeastShareNested,
                std::numeric_limits<float>::infinity()};
    }
    if (parent < 0) return {true, 0, kLeastShareOutermost, kLargestShare};
    const auto share = static_cast<float>(std::abs(at(areas, index) / at(areas, parent)));
    const bool isOutermost = hierarchy[static_cast<std::size_t>(parent)][kParent] < 0;
    return {false, share, isOutermost ? kLeastShareOutermost : kLeastShareNested, kLargestShare};
}

}  // namespace kestrune
