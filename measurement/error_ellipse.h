// SPDX-License-Identifier: Apache-2.0
//
// Uncertainties as ellipses that a picture can show. They are thousandths of a pixel, so that pictures enlarge them,
// all by one round number that they tell.
#pragma once

#include <opencv2/core.hpp>
#include <vector>

namespace kestrune::measure {

/// One standard deviation in every direction.
struct ErrorEllipse {
    double majorHalfAxis, minorHalfAxis;
    double angle;  ///< of the major axis to the x axis, degrees
};

ErrorEllipse errorEllipseOf(const cv::Matx22d& covariance);

/// How many times as large ellipses are to be drawn: 1, 2 or 5 times a power of ten, by which the median one becomes at
/// most `size` and more than a third of it; 0 where there are none.
///
/// @param majorHalfAxes  of the ellipses; those that are not above 0 do not count.
double errorScale(std::vector<double> majorHalfAxes, double size);

}  // namespace kestrune::measure
