// SPDX-License-Identifier: Apache-2.0
//
// Images of cameras as the library takes them: 8 bits, whole, or an error with the file's name.
#pragma once

#include <opencv2/core.hpp>
#include <optional>
#include <string>

#include "grey_range.h"

namespace kestrune::measure {

/// Decodes an image as it was taken: grey stays grey, colour is BGR, transparency is dropped, the bit depth is kept,
/// and a note to rotate the picture for viewing is ignored, since a calibration belongs to the sensor's rows and
/// columns.
///
/// @throws InputError  for a file that is missing, a folder, not readable, of no known format, or damaged or cut off,
///                     each by its name and in words of its own.
cv::Mat decodeImage(const std::string& file);

/// Lets the system bring a file into memory that is to be read soon, while something else is measured. One that is not
/// there will be told by whoever reads it.
void announceRead(const std::string& file);

/// The image in 8 bits: as it is where it has no more, else by the range, and without one by that of its own pixels.
///
/// @param invert  dark becomes bright, for markers that are dark on a light ground.
/// @throws InputError
cv::Mat readImage(const std::string& file, bool invert, const std::optional<GreyRange>& range = {});

/// The same of an image in memory, which shares its pixels where nothing is to be changed.
cv::Mat inEightBits(const cv::Mat& image, bool invert, const std::optional<GreyRange>& range = {});

/// The same for all images of a run.
struct ImageIntake {
    bool invert = false;
    std::optional<GreyRange> range;
};

/// Whether the head of a file tells of 8 bits or less. False where only its pixels can tell, or nothing can.
bool tellsEightBits(const std::string& file);

}  // namespace kestrune::measure
