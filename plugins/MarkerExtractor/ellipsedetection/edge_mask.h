// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <opencv2/core.hpp>
#include <vector>

namespace kestrune {

// What a mask of edges holds, besides 0.
constexpr uchar kStrongPixel = 255;
constexpr uchar kWeakPixel = 127;

/// Marks the pixels whose magnitude is a maximum along the gradient: strong above `high`, weak above `low`. Two pixels
/// at each border are never marked.
///
/// A magnitude equal to `low` is dropped in grouped columns and goes on in the leftover ones. The neighbours'
/// magnitudes are mixed with the weights of a linear interpolation exchanged: the axial neighbour gets min(|dx|, |dy|)
/// / max(|dx|, |dy|), the diagonal one the rest. Contours come out a little rounder so.
///
/// @param edge_mask  made `CV_8UC1` of the same size where it is not; otherwise only marked pixels are written.
/// @param strong     result: index y * cols + x of each pixel above `high`, in raster order.
/// @param weak       result: the same of the others.
/// @param nmsFactor  by which the neighbours are multiplied; below 1 the test is softer than a true maximum.
/// @throws cv::Exception `cv::Error::StsAssert` for images of other types or different sizes.
void find_edge_mask_nms(const cv::Mat& img_grad, const cv::Mat& img_dx, const cv::Mat& img_dy, cv::Mat& edge_mask,
                        std::vector<int>& strong, std::vector<int>& weak, float low, float high, float nmsFactor);

}  // namespace kestrune
