// SPDX-License-Identifier: Apache-2.0
//
// Points and directions in space are `cv::Vec3d` in the matchers. The host's records have types of their own.
#pragma once

#include <Eigen/Core>
#include <opencv2/core.hpp>

#include "kestrune/MarkerExtractor/calibration_records.h"

namespace kestrune {

inline cv::Vec3d vectorOf(const Point3_<double>& p) {
    return {p.x, p.y, p.z};
}

inline Point3_<double> recordOf(const cv::Vec3d& v) {
    return {v[0], v[1], v[2]};
}

inline Eigen::Vector3d eigenOf(const cv::Vec3d& v) {
    return {v[0], v[1], v[2]};
}

}  // namespace kestrune
