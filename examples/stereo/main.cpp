// SPDX-License-Identifier: Apache-2.0
#include <kestrune/MarkerMetrology.h>

#include <cstdio>
#include <opencv2/imgcodecs.hpp>
#include <stdexcept>

int main(int argc, char** argv) try {
    if (argc != 5) throw std::runtime_error("usage: stereo LEFT RIGHT CALIBRATION.yaml SETTINGS.yaml");
    const cv::Mat left = cv::imread(argv[1], cv::IMREAD_GRAYSCALE), right = cv::imread(argv[2], cv::IMREAD_GRAYSCALE);
    if (left.empty() || right.empty() || left.size() != right.size()) throw std::runtime_error("no pair of images");

    // Of what is wrong with a file, the error tells all, with file, line and field.
    kestrune::Rig rig = kestrune::readRig(argv[3]);
    kestrune::Settings settings = kestrune::readSettings(argv[4], {}, kestrune::Use::stereo);
    settings.configs.skipUndistort =
        settings.configs.cornersRectified;  // geometry is that of pixels without distortion
    if (rig.size.empty()) rig.size = left.size();
    if (rig.size != left.size()) throw std::runtime_error("the images have another size than the calibration's");
    kestrune::CircleMarkerExtractor extractor = kestrune::calibratedExtractor(rig);

    std::vector<kestrune::Point3_<double>> points;
    std::vector<cv::RotatedRect> leftRims, rightRims;
    const auto pairs =
        kestrune::getStereoMarker3dPoints(left, right, extractor, points, leftRims, rightRims, settings.configs);
    for (std::size_t k = 0; k < pairs.size(); ++k) {
        const kestrune::Corner& marker = pairs[k].first;
        std::printf("%zu: %.3f %.3f %.3f, radius %.3f, normal %.3f %.3f %.3f\n", k, points[k].x, points[k].y,
                    points[k].z, marker.markerRadius, marker.normal.x(), marker.normal.y(), marker.normal.z());
    }
    std::fprintf(stderr, "%zu pairs of %zu left and %zu right markers\n", pairs.size(), leftRims.size(),
                 rightRims.size());
    return pairs.empty() ? 1 : 0;
} catch (const std::exception& error) {
    std::fprintf(stderr, "%s\n", error.what());
    return 1;
}
