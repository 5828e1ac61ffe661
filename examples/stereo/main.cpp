// SPDX-License-Identifier: Apache-2.0
#include <kestrune/MarkerExtractor.h>

#include <algorithm>
#include <cstdio>
#include <opencv2/core/persistence.hpp>
#include <opencv2/imgcodecs.hpp>
#include <stdexcept>

using Camera = kestrune::Camera_<double, 2, 2>;
using Pose = kestrune::Pose_<double>;

cv::Mat read(const cv::FileStorage& rig, const char* name, int elements) {
    cv::Mat matrix;
    rig[name] >> matrix;
    if (matrix.total() < static_cast<std::size_t>(elements)) throw std::runtime_error(std::string("no matrix ") + name);
    matrix.convertTo(matrix, CV_64F);
    return matrix;
}

Camera camera(const cv::FileStorage& rig, const char* matrix, const char* distortion) {
    const cv::Mat k = read(rig, matrix, 9), d = read(rig, distortion, 4);
    Camera camera{{k.at<double>(0, 0), k.at<double>(1, 1), k.at<double>(0, 2), k.at<double>(1, 2)}};
    std::copy_n(d.ptr<double>(), std::min<std::size_t>(d.total(), 5), camera.values + 4);  // k1, k2, p1, p2, k3
    return camera;
}

int main(int argc, char** argv) try {
    if (argc != 4) throw std::runtime_error("usage: stereo LEFT RIGHT CALIBRATION.yaml (M1 D1 M2 D2 R T)");
    const cv::Mat left = cv::imread(argv[1], cv::IMREAD_GRAYSCALE), right = cv::imread(argv[2], cv::IMREAD_GRAYSCALE);
    if (left.empty() || right.empty() || left.size() != right.size()) throw std::runtime_error("no pair of images");

    // The left camera is the world: a point X in it is R X + T in the right one, which stands at -R' T.
    const cv::FileStorage rig(argv[3], cv::FileStorage::READ);
    const cv::Mat r = read(rig, "R", 9), t = read(rig, "T", 3), place = -r.t() * t.reshape(1, 3);
    const Pose leftPose{{1, 0, 0, 0, 1, 0, 0, 0, 1, 0, 0, 0}};
    Pose rightPose{};
    std::copy_n(r.ptr<double>(), 9, rightPose.values);
    std::copy_n(place.ptr<double>(), 3, rightPose.values + 9);
    kestrune::CircleMarkerExtractor extractor;
    extractor.transform_kestruneData2cvMat({leftPose, rightPose}, {camera(rig, "M1", "D1"), camera(rig, "M2", "D2")},
                                           left.cols, left.rows, 0);

    kestrune::CicrleConfigs c{};  // edge-based; what it does not read may stay 0
    c.useComplexExtract = true;
    c.scale = 2, c.aperture = 11, c.thresholdC = -7;               // blobs
    c.sigma = 1.3, c.nmsFactor = 0.96F, c.edgePercentile = 0.85F;  // their edges, px
    c.minDiameter = 3.8F, c.maxDiameter = 130, c.minAxisRatio = 0.4F, c.maxFitResidual = 0.06F;
    c.maxRowDifference = 1.5, c.minDepth = 600, c.maxDepth = 1200;  // px; the unit of T
    c.sizeTolerance = 0.1, c.minRadiusRatio = 0.8F;                 // markerRadii is empty: any size

    std::vector<kestrune::Point3_<double>> points;
    std::vector<cv::RotatedRect> leftRims, rightRims;
    const auto pairs = kestrune::getStereoMarker3dPoints(left, right, extractor, points, leftRims, rightRims, c);
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
