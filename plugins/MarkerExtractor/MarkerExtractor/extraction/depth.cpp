// SPDX-License-Identifier: Apache-2.0
#include <cmath>
#include <optional>

#include "MarkerExtractor/camera/calibration_check.h"
#include "checks/settings_check.h"
#include "kestrune/MarkerExtractor.h"
#include "kestrune_geometry/pinhole.h"

namespace kestrune {

namespace {

/// The two pixels about a coordinate along one axis, and the weight of each.
struct Neighbours {
    int lower, upper;
    float lowerWeight, upperWeight;
};

/// A whole coordinate has its own pixel as the upper neighbour. None where one of the two is off the image; what is not
/// a number, or is too large to be a pixel, is off every image.
std::optional<Neighbours> neighboursOf(double coordinate, int count) {
    const double upper = std::ceil(coordinate);
    if (!(upper >= 1 && upper < count)) return std::nullopt;
    const double lower = upper - 1;
    return Neighbours{static_cast<int>(lower), static_cast<int>(upper), static_cast<float>(upper - coordinate),
                      static_cast<float>(coordinate - lower)};
}

/// Depth at a centre, in single precision like the image. None beside the image and where one of the four pixels was
/// not measured: there is no interpolation across a hole.
std::optional<float> depthAt(const cv::Mat& depth, double x, double y) {
    const std::optional<Neighbours> column = neighboursOf(x, depth.cols);
    const std::optional<Neighbours> row = neighboursOf(y, depth.rows);
    if (!column || !row) return std::nullopt;
    const float d00 = depth.at<float>(row->lower, column->lower);
    const float d01 = depth.at<float>(row->lower, column->upper);
    const float d10 = depth.at<float>(row->upper, column->lower);
    const float d11 = depth.at<float>(row->upper, column->upper);
    if (d00 == 0.0f || d01 == 0.0f || d10 == 0.0f || d11 == 0.0f) return std::nullopt;
    return (d11 * column->upperWeight + d10 * column->lowerWeight) * row->upperWeight +
           (d01 * column->upperWeight + d00 * column->lowerWeight) * row->lowerWeight;
}

}  // namespace

void CircleMarkerExtractor::DetectFeaturePointsAndInterpolate_binocular(std::vector<Corner>& corners, cv::Mat& depth,
                                                                        const cv::Mat& cameraMatrix) {
    if (corners.empty()) return;
    requireData(depth, "depth");
    if (depth.dims != 2 || depth.type() != CV_32FC1) {
        refuseSetting("depth", std::to_string(depth.dims) + " dimensions of type " + cv::typeToString(depth.type()) +
                                   "; two of CV_32FC1 are needed");
    }
    requireMatrix(cameraMatrix, 3, 3, "cameraMatrix");
    const auto [fx, fy, cx, cy] = geometry::Pinhole::of(cameraMatrix);

    std::vector<Corner> survivors;
    for (const Corner& corner : corners) {
        const std::optional<float> z = depthAt(depth, corner.x, corner.y);
        if (!z) continue;
        // The centre is taken as the record has it, with no undistortion.
        const auto y = static_cast<float>((corner.y - cy) * *z / fy);
        const auto x = static_cast<float>((corner.x - cx) * *z / fx);
        Corner placed = corner;
        placed.position = {x, y, *z};
        placed.id = static_cast<std::int32_t>(survivors.size());
        placed.matched = true;
        survivors.push_back(std::move(placed));
    }
    corners.swap(survivors);
}

}  // namespace kestrune
