// SPDX-License-Identifier: Apache-2.0
#include "MarkerExtractor/camera/rectify.h"

#include <algorithm>
#include <opencv2/calib3d.hpp>

#include "MarkerExtractor/camera/calibration_check.h"
#include "MarkerExtractor/camera/undistort.h"
#include "kestrune/MarkerExtractor.h"
#include "kestrune_geometry/conic.h"

namespace kestrune {

namespace {

void rectifyConic(const geometry::Conic& conic, const cv::Matx33d& back, Corner& target) {
    target.ellipse = geometry::ellipseOf(geometry::mapped(conic, back));
    target.x = target.ellipse.center.x;
    target.y = target.ellipse.center.y;
}

}  // namespace

EllipseParams conicToEllipse(double A, double B, double C, double D, double E, double F) {
    const cv::RotatedRect ellipse = geometry::ellipseOf({A, B, C, D, E, F});
    return {ellipse.angle, ellipse.size.width, ellipse.size.height, ellipse.center.x, ellipse.center.y};
}

void rectifyCorners(const std::vector<Corner>& source, std::vector<Corner>& target, const RectifyingCamera& camera) {
    const cv::Mat inverse = camera.homography.inv(cv::DECOMP_LU);
    if (&target != &source) target = source;
    for (std::size_t i = 0; i < source.size(); ++i) {
        cv::Mat points = packPoints(source[i]);
        cv::undistortPoints(points, points, camera.intrinsic, camera.distortion, camera.rectification,
                            camera.projection);
        unpackPoints(points, target[i]);
        if (source[i].conicValid) rectifyConic(source[i].conic, inverse, target[i]);
    }
}

void CircleMarkerExtractor::StereoRectifyCorners(const std::vector<Corner>& source, std::vector<Corner>& target,
                                                 const cv::Mat& cameraMatrix, const cv::Mat& distCoeffs,
                                                 const cv::Mat& rectification, const cv::Mat& projection,
                                                 const cv::Mat& homography) {
    if (std::ranges::any_of(source, &Corner::conicValid)) requireMatrix(homography, 3, 3, "homography");
    requireData(homography, "homography");
    if (!source.empty()) {
        requireDistortion(distCoeffs, "distCoeffs");
        requireData(cameraMatrix, "cameraMatrix");
        requireData(rectification, "rectification");  // without data OpenCV takes it for none
        requireData(projection, "projection");
    }
    rectifyCorners(source, target, {cameraMatrix, distCoeffs, rectification, projection, homography});
}

}  // namespace kestrune
