// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <opencv2/core.hpp>

namespace kestrune {

/// A left and a right marker that are one, and where it is.
struct MatchedPair {
    int left, right;  ///< places in the lists
    cv::Vec3d point;  ///< in the frame of the result
};

}  // namespace kestrune
