// SPDX-License-Identifier: Apache-2.0
#include "error_ellipse.h"

#include <algorithm>
#include <cmath>

namespace kestrune::measure {

ErrorEllipse errorEllipseOf(const cv::Matx22d& covariance) {
    const double mean = 0.5 * (covariance(0, 0) + covariance(1, 1));
    const double half = 0.5 * (covariance(0, 0) - covariance(1, 1));
    const double apart = std::hypot(half, covariance(0, 1));
    return {std::sqrt(std::max(0.0, mean + apart)), std::sqrt(std::max(0.0, mean - apart)),
            0.5 * std::atan2(covariance(0, 1), half) * 180 / CV_PI};
}

double errorScale(std::vector<double> majorHalfAxes, double size) {
    std::erase_if(majorHalfAxes, [](double axis) { return !(axis > 0 && std::isfinite(axis)); });
    if (majorHalfAxes.empty()) return 0;
    const auto middle = majorHalfAxes.begin() + static_cast<std::ptrdiff_t>(majorHalfAxes.size() / 2);
    std::ranges::nth_element(majorHalfAxes, middle);
    const double most = size / *middle, power = std::pow(10, std::floor(std::log10(most)));
    return (most >= 5 * power ? 5 : most >= 2 * power ? 2 : 1) * power;
}

}  // namespace kestrune::measure
