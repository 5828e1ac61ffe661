// SPDX-License-Identifier: Apache-2.0
//
// Calibration of any kind, taken in and used.
#include "fuzz_input.h"

namespace kestrune::fuzz {
namespace {

void checkIntake(Input& input) {
    CircleMarkerExtractor extractor;
    std::vector<Pose_<double>> poses(static_cast<std::size_t>(input.whole(0, 3)));
    std::vector<Camera_<double, 2, 2>> cameras(static_cast<std::size_t>(input.whole(0, 3)));
    for (auto& pose : poses)
        for (double& value : pose.values) value = input.real(-1, 1);
    for (auto& camera : cameras)
        for (double& value : camera.values) value = input.real(-1, 300);
    const int width = input.whole(-2, 200), height = input.whole(-2, 200), flags = input.whole(0, 2000);
    survives([&] { extractor.transform_kestruneData2cvMat(poses, cameras, width, height, flags); });

    std::vector<cv::Mat> matrices;
    for (int k = input.whole(0, 5); k > 0; --k) matrices.push_back(input.matrix(3, k > 2 ? 4 : 3, -500, 500));
    survives([&] { extractor.SetStereorectifyParam(matrices); });
    survives([&] { extractor.SetTriangulationIntrinsicMatrix(input.camera(), input.camera()); });
    cv::Mat R = input.matrix(3, 3, -1, 1), T = input.matrix(3, 1, -1, 1), K1 = input.camera(), K2 = input.camera(), F;
    survives([&] { extractor.CalcFoundationMat(R, T, K1, K2, F); });

    std::vector<Point3_<double>> points;
    std::vector<cv::RotatedRect> leftRects, rightRects;
    const CicrleConfigs configs = input.configs();
    const cv::Size size = input.imageSize();
    const cv::Mat left = input.image(size), right = input.image(size);
    std::size_t pairs = 0;
    if (survives([&] {
            pairs = getStereoMarker3dPoints(left, right, extractor, points, leftRects, rightRects, configs).size();
        }))
        require(pairs == points.size(), "a point for each pair");
}

void checkCorners(Input& input) {
    CircleMarkerExtractor extractor;
    std::vector<Corner> corners = input.corners(6), target;
    survives([&] { extractor.UndistortCorners(corners, input.camera(), input.matrix(1, 5, -0.2, 0.2)); });
    survives([&] {
        extractor.StereoRectifyCorners(corners, target, input.camera(), input.matrix(1, 5, -0.2, 0.2),
                                       input.matrix(3, 3, -1, 1), input.matrix(3, 4, -500, 500),
                                       input.matrix(3, 3, -1, 1));
    });
    cv::Mat depth(input.imageSize(), input.flag() ? CV_32FC1 : CV_16UC1, cv::Scalar(input.whole(-1, 9)));
    survives([&] { extractor.DetectFeaturePointsAndInterpolate_binocular(corners, depth, input.camera()); });

    cv::Mat image = input.image(input.imageSize()), position = input.matrix(3, 1, -5, 5);
    cv::RotatedRect ellipse({input.single(-200, 200), input.single(-200, 200)},
                            {input.single(0, 40), input.single(0, 40)}, input.single(0, 180));
    double x = 0, y = 0, norm = 0;
    const double distance = input.real(0, 1000), radius = input.real(0, 10);
    survives([&] { extractor.correctedEccentricityAhn(image, position, ellipse, x, y, norm, distance, radius); });
    survives([&] { extractor.correctedEccentricityAhn(image, position, ellipse, x, y, norm); });
}

void checkOne(const std::uint8_t* data, std::size_t size) {
    Input input(data, size);
    if (input.flag())
        checkIntake(input);
    else
        checkCorners(input);
}

}  // namespace
}  // namespace kestrune::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    kestrune::fuzz::checkOne(data, size);
    return 0;
}
