// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <opencv2/core.hpp>
#include <vector>

namespace kestrune {

/// Moves each pixel of a contour to the ridge of the gradient's magnitude: along the eigenvector n of the Hessian's
/// eigenvalue of larger magnitude, by t = -(slope along n) / (curvature along n), a line point after C. Steger, "An
/// unbiased detector of curvilinear structures", PAMI 20(2), 1998. Where t exceeds 1.5 px, or there is no curvature,
/// the pixel stays where it is.
///
/// @param img_grad  magnitudes, `rows` times `cols` of them without gaps.
/// @return          px, in the order of the contour, without the pixels of the outer two rows and columns.
std::vector<cv::Point2f> refineContourOnGradient(const std::vector<cv::Point>& contour, const float* img_grad, int rows,
                                                 int cols);

/// The same with the magnitudes of a window of the image, which holds each pixel and those around it.
///
/// @param img_grad  `CV_32FC1`.
/// @param origin    of the window in the image.
/// @param size      of the image.
std::vector<cv::Point2f> refineContourInWindow(const std::vector<cv::Point>& contour, const cv::Mat& img_grad,
                                               const cv::Point& origin, const cv::Size& size);

}  // namespace kestrune
