// SPDX-License-Identifier: Apache-2.0
#include "depth_points.h"

#include <fmt/format.h>

#include <cmath>

#include "pixels.h"

namespace kestrune::measure {
namespace {

/// The markers' centres, with their ids in `matchIndex`, which no operation touches.
std::vector<Corner> cornersOf(const std::vector<Marker>& markers) {
    std::vector<Corner> corners(markers.size());
    for (std::size_t i = 0; i < markers.size(); ++i) {
        corners[i].matchIndex = markers[i].id;
        corners[i].x = markers[i].centre.x;
        corners[i].y = markers[i].centre.y;
    }
    return corners;
}

}  // namespace

cv::Mat asDepth(const cv::Mat& given, const std::string& name, double scale, cv::Size size) {
    if (given.type() != CV_32FC1 && given.type() != CV_16UC1)
        throw InputError(name, fmt::format("is of type {}; a depth image is 32-bit float or 16-bit, of one channel",
                                           cv::typeToString(given.type())));
    if (given.size() != size)
        throw InputError(
            name, fmt::format("is {} by {}, the image {} by {}", given.cols, given.rows, size.width, size.height));
    cv::Mat depth;
    given.convertTo(depth, CV_32F, scale);
    for (auto it = depth.begin<float>(); it != depth.end<float>(); ++it)
        if (!(*it > 0) || std::isinf(*it)) *it = 0;
    return depth;
}

void requireUndistorted(const std::string& settingsName, const std::string& calibrationName, const Settings& settings,
                        const Camera& camera) {
    if (settings.configs.cornersRectified && hasDistortion(camera.distortion))
        throw InputError(settingsName, "field 'cornersRectified' true, but " + calibrationName +
                                           " has distortion: it is not that of a rectified image");
    if (deliversUndistorted(settings) || !hasDistortion(camera.distortion)) return;
    const std::string why =
        canUndistort(settings.path)
            ? "field 'skipUndistort' true leaves the lens in the pixels; depth needs false"
            : fmt::format("path {} leaves the lens in the pixels; depth needs another", nameOf(settings.path));
    throw InputError(settingsName, why +
                                       ", or for an image that is free of distortion already a calibration that "
                                       "has none");
}

std::vector<DepthPoint> placeByDepth(CircleMarkerExtractor& extractor, const std::vector<Marker>& markers,
                                     cv::Mat& depth, const cv::Mat& cameraMatrix) {
    std::vector<Corner> corners = cornersOf(markers);
    extractor.DetectFeaturePointsAndInterpolate_binocular(corners, depth, cameraMatrix);
    std::vector<DepthPoint> points;
    points.reserve(corners.size());
    for (const Corner& c : corners)
        points.push_back({c.matchIndex, {c.x, c.y}, {c.position[0], c.position[1], c.position[2]}});
    return points;
}

}  // namespace kestrune::measure
