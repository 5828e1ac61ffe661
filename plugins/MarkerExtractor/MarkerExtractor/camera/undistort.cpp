// SPDX-License-Identifier: Apache-2.0
#include "MarkerExtractor/camera/undistort.h"

#include <opencv2/calib3d.hpp>

#include "MarkerExtractor/camera/calibration_check.h"
#include "kestrune/MarkerExtractor.h"

namespace kestrune {

cv::Mat packPoints(const Corner& corner) {
    const int count = static_cast<int>(corner.contour.size()) + 1;
    cv::Mat rows = cv::Mat::zeros(count, 2, CV_64F);
    rows.at<double>(0, 0) = corner.x;
    rows.at<double>(0, 1) = corner.y;
    for (int k = 1; k < count; ++k) {
        const cv::Point2f& point = corner.contour[static_cast<std::size_t>(k - 1)];
        rows.at<double>(k, 0) = point.x;
        rows.at<double>(k, 1) = point.y;
    }
    return rows.reshape(2, 0);
}

void unpackPoints(const cv::Mat& points, Corner& corner) {
    corner.x = points.at<cv::Vec2d>(0)[0];
    corner.y = points.at<cv::Vec2d>(0)[1];
    for (std::size_t k = 0; k < corner.contour.size(); ++k) {
        const auto& moved = points.at<cv::Vec2d>(static_cast<int>(k) + 1);
        corner.contour[k] = cv::Point2f(static_cast<float>(moved[0]), static_cast<float>(moved[1]));
    }
}

void undistortCorner(Corner& corner, const cv::Mat& cameraMatrix, const cv::Mat& distCoeffs) {
    cv::Mat points = packPoints(corner);
    cv::undistortPoints(points, points, cameraMatrix, distCoeffs, cv::Mat(), cameraMatrix);
    unpackPoints(points, corner);
}

void CircleMarkerExtractor::UndistortCorners(std::vector<Corner>& corners, const cv::Mat& cameraMatrix,
                                             const cv::Mat& distCoeffs) {
    if (corners.empty()) return;
    requireData(cameraMatrix, "cameraMatrix");
    requireDistortion(distCoeffs, "distCoeffs");
    for (Corner& corner : corners) undistortCorner(corner, cameraMatrix, distCoeffs);
}

}  // namespace kestrune
