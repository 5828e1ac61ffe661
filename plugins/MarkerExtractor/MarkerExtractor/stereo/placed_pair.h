// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <opencv2/core.hpp>

namespace kestrune {

/// A left and a right marker that are one, and where it is.
struct PlacedPair {
    int left, right;  ///< places in the lists
    cv::Vec3d point;  ///< in the frame of the result
};

/// A left and a right marker that are one disc in space. The point is in the frame of the left projection: left camera,
/// or rectified left camera with `cornersRectified`. Its precision is that of a float.
struct DiscMatch : PlacedPair {
    cv::Vec3d normal;  ///< unit, in the frame of the point
    double radius;     ///< mean of the two eyes
};

}  // namespace kestrune
