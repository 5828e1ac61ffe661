// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <opencv2/core.hpp>
#include <vector>

#include "kestrune/MarkerExtractor/calibration_records.h"

namespace kestrune {

/// What the matchers know of one corner: where it is and which corners of the other eye it may be.
struct MarkerMatchRecord {
    double x, y;                                ///< centre, px
    std::vector<int> matches;                   ///< indices of the candidates in the other eye's list
    std::vector<cv::Point2d> samples;           ///< points of the outline that the pair test triangulates, px
    std::vector<Point3_<double>> candidates3d;  ///< in step with `matches`: the point that the candidate gives
    std::vector<double> candidateRadii;         ///< in step with `matches`: its radius in space
    double area;                                ///< of the corner, px^2
};

}  // namespace kestrune
