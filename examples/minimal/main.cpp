// SPDX-License-Identifier: Apache-2.0
#include <kestrune/MarkerExtractor.h>

#include <cmath>
#include <cstdio>

int main() {
    cv::Mat image(240, 320, CV_8UC1);  // the camera's image; here a bright disc on a dark ground
    image.forEach<uchar>([](uchar& grey, const int* at) {
        const double outside = std::hypot(at[1] - 150.3, at[0] - 99.7) - 12.0;
        grey = cv::saturate_cast<uchar>(40 + 160 * std::fmin(std::fmax(0.5 - outside, 0.0), 1.0));
    });

    kestrune::CicrleConfigs configs{};  // a path reads only its own fields; the rest may stay zero
    configs.useRadialContours = true;
    configs.skipUndistort = true;  // no calibration: results in pixels of the image as it is
    configs.scale = 1;
    configs.aperture = 5;
    configs.sigma = 1.0;
    configs.thresholdC = -10;
    configs.contrast = 40;
    configs.minRayRatio = 0.8F;
    configs.minContourSize = 30;
    configs.minArea = 50.0;
    configs.maxArea = 5000.0;
    configs.maxEccentricity = 0.9;
    configs.maxFitResidual = 0.1F;

    kestrune::CircleMarkerExtractor extractor;
    std::vector<kestrune::Corner> corners;
    extractor.CircleExtractSimple(image, corners, 0, configs);
    for (const kestrune::Corner& corner : corners) {
        std::printf("marker %d at %.1f %.1f\n", corner.id, corner.x, corner.y);
    }
}
