// SPDX-License-Identifier: Apache-2.0
//
// What the pixels of a marker's coordinates are. A lens moves markers by up to tens of pixels, and a calibration for
// images of another size by as much: neither shows in a table of numbers.
#pragma once

#include <opencv2/core.hpp>
#include <optional>
#include <string>

#include <kestrune/MarkerMetrology.h>

namespace kestrune::measure {

enum class Pixels {
    undistorted,  ///< those of the camera matrix with an ideal lens
    distorted,    ///< those of the image as it was taken
    rectified,    ///< those of an image that was rectified before it was searched
};

const char* nameOf(Pixels pixels);
std::optional<Pixels> pixelsNamed(const std::string& name);

/// All names, for a message.
std::string namesOfPixels();

/// False for a path that measures in the image as it is, whatever the settings say.
bool canUndistort(Path path);

/// True where the lens's distortion is taken out of the markers' coordinates.
bool deliversUndistorted(const Settings& settings);

/// @param camera  may be empty. A lens without distortion leaves undistorted pixels.
Pixels pixelsOf(const Settings& settings, const Camera& camera);

/// Whether the lens moves anything.
bool hasDistortion(const cv::Mat& coefficients);

/// Holds images to the size that a calibration is for: the same camera matrix is another camera in an image of another
/// size.
class CalibratedSize {
  public:
    /// @param file  of the calibration; empty: there is none, and every image will do.
    /// @param size  empty: the file tells none, and that of the first image counts, but for a calibration that nothing
    ///              makes use of.
    CalibratedSize(const std::string& file, cv::Size size, bool isUsed)
        : file_(isUsed || !size.empty() ? file : ""), size_(size) {}

    /// @return what is assumed about the size, to be told; empty where nothing is.
    /// @throws InputError  with both sizes.
    std::string require(const std::string& image, cv::Size size);

  private:
    std::string file_;
    cv::Size size_;
};

}  // namespace kestrune::measure
