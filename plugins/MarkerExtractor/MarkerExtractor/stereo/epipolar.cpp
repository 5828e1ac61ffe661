// SPDX-License-Identifier: Apache-2.0
#include "MarkerExtractor/stereo/epipolar.h"

#include "MarkerExtractor/camera/calibration_check.h"

namespace kestrune {

double sampsonDistance(const cv::Matx33d& fundamental, const cv::Point2f& left, const cv::Point2f& right) {
    const cv::Vec3d x(left.x, left.y, 1.0), xr(right.x, right.y, 1.0);
    const cv::Vec3d line = fundamental * x, back = fundamental.t() * xr;
    const double constraint = cv::Mat(xr, false).dot(cv::Mat(line, false));  // rounds otherwise than `cv::Vec3d::dot`
    return constraint * constraint / (line[0] * line[0] + line[1] * line[1] + back[0] * back[0] + back[1] * back[1]);
}

double sampsonDistance(const cv::Mat& fundamental, const cv::Point2f& left, const cv::Point2f& right) {
    requireMatrix(fundamental, 3, 3, "fundamental");
    return sampsonDistance(cv::Matx33d(fundamental), left, right);
}

}  // namespace kestrune
