// SPDX-License-Identifier: Apache-2.0
//
// The pinhole camera without lens: x = fx X / Z + cx, y = fy Y / Z + cy, with X right, Y down and Z away from the
// camera.
#pragma once

#include <opencv2/core.hpp>

namespace kestrune::geometry {

struct Pinhole {
    double fx, fy, cx, cy;  ///< px

    /// @param matrix  K, `CV_64FC1`, at least 2 by 3; its skew is not read.
    static Pinhole of(const cv::Mat& matrix) {
        return {matrix.at<double>(0, 0), matrix.at<double>(1, 1), matrix.at<double>(0, 2), matrix.at<double>(1, 2)};
    }

    cv::Matx33d matrix() const { return {fx, 0, cx, 0, fy, cy, 0, 0, 1}; }

    /// The pixel in an ideal camera of unit focal length: the ray's direction is (x, y, 1).
    cv::Point2d normalised(const cv::Point2d& pixel) const { return {(pixel.x - cx) / fx, (pixel.y - cy) / fy}; }
};

/// [t]x, with [t]x v the cross product of t and v.
inline cv::Matx33d crossMatrix(const cv::Vec3d& t) {
    return {0, -t[2], t[1], t[2], 0, -t[0], -t[1], t[0], 0};
}

}  // namespace kestrune::geometry
