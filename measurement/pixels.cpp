// SPDX-License-Identifier: Apache-2.0
#include "pixels.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>

#include "files/inputs.h"

namespace kestrune::measure {
namespace {

constexpr std::array<const char*, 3> kNames = {"undistorted", "distorted", "rectified"};

}  // namespace

const char* nameOf(Pixels pixels) {
    return kNames[static_cast<std::size_t>(pixels)];
}

std::optional<Pixels> pixelsNamed(const std::string& name) {
    const auto* const found = std::ranges::find(kNames, name);
    if (found == kNames.end()) return std::nullopt;
    return static_cast<Pixels>(found - kNames.begin());
}

std::string namesOfPixels() {
    return fmt::format("{}", fmt::join(kNames, ", "));
}

bool canUndistort(Path path) {
    return path != Path::fast && path != Path::hand;
}

bool deliversUndistorted(const Settings& settings) {
    return canUndistort(settings.path) && !settings.configs.skipUndistort;
}

Pixels pixelsOf(const Settings& settings, const Camera& camera) {
    if (deliversUndistorted(settings)) return Pixels::undistorted;
    if (settings.configs.cornersRectified) return Pixels::rectified;
    const bool ideal = !camera.matrix.empty() && !hasDistortion(camera.distortion);
    return ideal ? Pixels::undistorted : Pixels::distorted;
}

bool hasDistortion(const cv::Mat& coefficients) {
    return !coefficients.empty() && cv::countNonZero(coefficients) > 0;
}

std::string CalibratedSize::require(const std::string& image, cv::Size size) {
    if (file_.empty() || size == size_) return {};
    if (!size_.empty())
        throw InputError(image, fmt::format("is {} x {} px, the calibration is for {} x {}", size.width, size.height,
                                            size_.width, size_.height));
    size_ = size;
    return fmt::format("{}: tells no image size; taken to be for {} x {} px, as {} is", file_, size.width, size.height,
                       image);
}

}  // namespace kestrune::measure
