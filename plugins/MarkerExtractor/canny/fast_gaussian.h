// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <array>
#include <cstdint>
#include <opencv2/core.hpp>
#include <vector>

namespace kestrune {

/// Smooths with three box filters whose joint variance approximates sigma^2. With n = 3 passes, the ideal width is
/// sqrt(12 sigma^2 / n + 1); the first m passes take the odd width below it, the others the odd width above it, and m
/// is chosen so that the variances add up (P. Kovesi, "Fast almost-Gaussian filtering", DICTA 2010).
///
/// The border repeats the outermost pixels of `src`, also where `src` is a window of a larger image: what lies around
/// the window has no say in the result.
///
/// @param src    `CV_8UC1`, which is raised by a factor 256 first, or `CV_16UC1`.
/// @param dst    result, `CV_16UC1` of the source's size; made so where it is not. May be `src`.
/// @param sigma  px, up to 4095. Its sign has no meaning.
/// @throws cv::Exception `cv::Error::StsAssert` for a source of another type and `cv::Error::StsBadArg` for a sigma
///               that is not finite or larger, before anything is written.
void fastGaussianApprox(const cv::Mat& src, cv::Mat& dst, float sigma);

/// The part of the whole smoothed image that a window shows, in the same bits, without smoothing more than the window
/// needs: only the border of the image itself is repeated, and a neighbour that the window cuts off has its say.
///
/// @param image    as `src` above. Neither its type nor `sigma` is looked at.
/// @param window   within the image, not empty.
/// @param dst      result, `CV_16UC1` of the window's size; made so where it is not.
/// @param storage  scratch, made larger where it is too small; as many elements as the image has pixels will always do.
///                 What is in it has no say.
void fastGaussianOfWindow(const cv::Mat& image, const cv::Rect& window, cv::Mat& dst, float sigma,
                          std::vector<std::uint16_t>& storage);

/// Storage that goes from window to window.
struct BoxScratch {
    std::array<std::vector<std::uint16_t>, 2> pixels;
    std::vector<std::uint32_t> sums;
};

/// The same, by own code where that gives the same bits.
///
/// @param image  `CV_8UC1`.
/// @return       the window, in the storage of `scratch`.
cv::Mat smoothedWindow(const cv::Mat& image, const cv::Rect& window, float sigma, BoxScratch& scratch);

}  // namespace kestrune
