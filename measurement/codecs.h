// SPDX-License-Identifier: Apache-2.0
//
// OpenCV's readers and writers of image formats. They bring more than a hundred libraries, which take a tenth of a
// second to load; grey PNGs and JPEGs need none of them, so that they are loaded by the first file that does.
#pragma once

#include <opencv2/core.hpp>
#include <span>
#include <string>
#include <vector>

namespace kestrune::measure {

/// `cv::imdecode`.
///
/// @throws std::runtime_error  where the library cannot be loaded, with the loader's reason.
cv::Mat decodeByCodec(std::span<const unsigned char> bytes, int flags);

/// `cv::imencode`.
///
/// @param ending  of the file's name, with its dot: decides on the format.
/// @throws cv::Exception, std::runtime_error
bool encodeByCodec(const std::string& ending, const cv::Mat& image, std::vector<unsigned char>& bytes);

}  // namespace kestrune::measure
