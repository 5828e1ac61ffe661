// SPDX-License-Identifier: Apache-2.0
#include "MarkerExtractor/camera/undistort.h"

#include <opencv2/calib3d.hpp>

namespace kestrune {

void undistortCorner(Corner& corner, const cv::Mat& cameraMatrix, const cv::Mat& distCoeffs) {
    const int count = static_cast<int>(corner.contour.size()) + 1;
    cv::Mat rows = cv::Mat::zeros(count, 2, CV_64F);
    rows.at<double>(0, 0) = corner.x;
    rows.at<double>(0, 1) = corner.y;
    for (int k = 1; k < count; ++k) {
        const cv::Point2f& point = corner.contour[static_cast<std::size_t>(k - 1)];
        rows.at<double>(k, 0) = point.x;
        rows.at<double>(k, 1) = point.y;
    }

    cv::Mat points = rows.reshape(2, 0);
    cv::undistortPoints(points, points, cameraMatrix, distCoeffs, cv::Mat(), cameraMatrix);

    corner.x = points.at<cv::Vec2d>(0)[0];
    corner.y = points.at<cv::Vec2d>(0)[1];
    for (int k = 1; k < count; ++k) {
        const cv::Vec2d& moved = points.at<cv::Vec2d>(k);
        corner.contour[static_cast<std::size_t>(k - 1)] =
            cv::Point2f(static_cast<float>(moved[0]), static_cast<float>(moved[1]));
    }
}

}  // namespace kestrune
