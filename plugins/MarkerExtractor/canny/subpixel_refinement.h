// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <opencv2/core.hpp>
#include <vector>

namespace kestrune {

/// One contour: three arrays of equal length in contour order. Radial contours fill `points` only.
struct SubpixelContour {
    std::vector<cv::Point2f> points;  ///< px
    std::vector<float> response;      ///< gradient magnitude: about the height of the step, grey levels
    std::vector<float> direction;     ///< angle of the edge's normal, radians in [0, 2 pi)
};

/// Moves every contour pixel to the extremum of a quadratic facet of the gradient magnitude across the edge, if that
/// lies within half a pixel in both axes; otherwise the pixel stays. The line point is that of C. Steger, "An unbiased
/// detector of curvilinear structures" (1998), on a 3 by 3 facet.
///
/// @param dx,dy     `CV_16SC1` derivatives, scaled by 128.
/// @param contours  resized to the number of pixel contours; every point is independent of the thread that computes it.
void refineContours(const cv::Mat& dx, const cv::Mat& dy, const std::vector<std::vector<cv::Point>>& pixelContours,
                    std::vector<SubpixelContour>& contours);

/// Where two pixels go by that.
///
/// @param magnitudes  of the gradient in the 3 by 3 neighbourhood of each, in row order; beyond the border the centre
/// row
///                    or column stands in.
void refinePair(const cv::Point* const (&pixels)[2], const double (&magnitudes)[2][9], cv::Point2f* const (&points)[2]);

}  // namespace kestrune
