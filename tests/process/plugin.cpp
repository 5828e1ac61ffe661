// SPDX-License-Identifier: Apache-2.0
//
// What a host loads at run time: measures with the library, in loops long enough for a team of threads.
#include <kestrune/MarkerExtractor.h>

extern "C" __attribute__((visibility("default"))) int measure() {
    constexpr std::size_t kCount = 6000;
    std::vector<kestrune::Corner> left(kCount), right(kCount);
    for (std::size_t k = 0; k < kCount; ++k) left[k].x = 10, right[k].x = 5, left[k].y = right[k].y = 4 * static_cast<double>(k);
    const cv::Mat eye = cv::Mat::eye(3, 3, CV_64F), rows = (cv::Mat_<double>(3, 3) << 0, 0, 0, 0, 0, 1, 0, -1, 0);
    const cv::Mat pose = (cv::Mat_<double>(3, 4) << 1, 0, 0, -1, 0, 1, 0, 0, 0, 0, 1, 0);
    std::vector<kestrune::Point3_<double>> points;
    return kestrune::getStereoMarker3dPoints(left, right, pose, eye, eye, rows, points).size() == kCount ? 0 : 1;
}
