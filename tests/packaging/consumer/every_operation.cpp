// SPDX-License-Identifier: Apache-2.0
//
// A host that calls every operation of the installed library once, on two discs before a rectified pair: what cannot be
// linked or called from C++17 shows here.
#include <kestrune/MarkerExtractor.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>

namespace {

constexpr double kFocal = 800, kBase = 100, kDepth = 1000, kRadius = 20;  // px, mm

void expect(bool holds, const char* what) {
    if (holds) return;
    std::fprintf(stderr, "wrong: %s\n", what);
    std::exit(1);
}

/// Bright discs of 16 px at (200, 150) and (320, 260), shifted to the left by the disparity in the right eye.
cv::Mat picture(double shift) {
    cv::Mat image(480, 640, CV_8UC1);
    image.forEach<uchar>([shift](uchar& grey, const int* at) {
        const double first = std::hypot(at[1] + shift - 200, at[0] - 150.0);
        const double second = std::hypot(at[1] + shift - 320, at[0] - 260.0);
        const double outside = std::fmin(first, second) - kRadius * kFocal / kDepth;
        grey = static_cast<uchar>(40 + 170 * std::fmin(std::fmax(0.5 - outside, 0.0), 1.0));
    });
    return image;
}

kestrune::CicrleConfigs settings() {
    kestrune::CicrleConfigs c{};
    c.useRadialContours = c.plainRowGate = true;
    c.scale = 1, c.aperture = 11, c.sigma = 1, c.thresholdC = -8, c.contrast = 40, c.minRayRatio = 0.8F;
    c.minContourSize = 30, c.minArea = 50, c.maxArea = 1e4, c.maxEccentricity = 0.9, c.maxFitResidual = 0.2F;
    c.maxFitError = c.maxPointError = 2;
    c.minDiameter = 6, c.maxDiameter = 200, c.minAxisRatio = 0.4F, c.nmsFactor = 0.95F, c.edgePercentile = 0.8F;
    c.markerRadii = {kRadius}, c.sizeTolerance = 0.2, c.maxRowDifference = 2, c.minDepth = 500, c.maxDepth = 2000;
    c.minRadiusRatio = 0.8F, c.deviationFactor = 3, c.edgeLengthTolerance = c.edgeAngleTolerance = 0.2;
    return c;
}

}  // namespace

int main() {
    using namespace kestrune;
    const Camera_<double, 2, 2> camera{{kFocal, kFocal, 320, 240}};
    const Pose_<double> leftPose{{1, 0, 0, 0, 1, 0, 0, 0, 1, 0, 0, 0}}, rightPose{{1, 0, 0, 0, 1, 0, 0, 0, 1, kBase, 0, 0}};
    CircleMarkerExtractor e;
    e.transform_kestruneData2cvMat({leftPose, rightPose}, {camera, camera}, 640, 480, 0);
    cv::Mat fundamental;
    e.CalcFoundationMat(e.rotation, e.translation, e.leftIntrinsic, e.rightIntrinsic, fundamental);
    e.SetTriangulationIntrinsicMatrix(e.leftIntrinsic, e.rightIntrinsic);
    expect(e.SetStereorectifyParam({e.leftProjection, e.rightProjection, e.leftRectification, e.rightRectification}), "SetStereorectifyParam");

    const cv::Mat left = picture(0), right = picture(kFocal * kBase / kDepth);
    const CicrleConfigs configs = settings();
    std::vector<Corner> simple, rims, door, fast, hand, other;
    expect(e.CircleExtractSimple(left, simple, 0, configs) && simple.size() == 2, "CircleExtractSimple");
    expect(e.CircleExtractComplex(left, rims, 0, configs) && rims.size() == 2, "CircleExtractComplex");
    expect(ExtractCircleMarker(right, e, door, 1, configs) && door.size() == 2, "ExtractCircleMarker");
    expect(e.extractMarkPointsFast(left, fast, 0, configs) && fast.size() == 2, "extractMarkPointsFast");
    cv::Mat colour;
    cv::merge(std::vector<cv::Mat>(3, left), colour);
    expect(e.CircleExtractSimpleForHand(colour, hand, 0, configs) && hand.size() == 2, "CircleExtractSimpleForHand");

    e.UndistortCorners(fast, e.leftIntrinsic, e.leftDistortion);
    e.StereoRectifyCorners(simple, other, e.leftIntrinsic, {}, e.leftRectification, e.leftProjection, e.leftHomography);
    expect(fast.size() == 2 && other.size() == 2, "UndistortCorners, StereoRectifyCorners");
    cv::Mat depth(480, 640, CV_32FC1, cv::Scalar(kDepth)), position = (cv::Mat_<double>(3, 1) << 10, 20, -kDepth);
    e.DetectFeaturePointsAndInterpolate_binocular(hand, depth, e.leftIntrinsic);
    expect(hand.size() == 2 && hand[0].matched, "DetectFeaturePointsAndInterpolate_binocular");
    double x = 0, y = 0, norm = -1;
    cv::RotatedRect ellipse({100, 100}, {30, 20}, 10);
    e.correctedEccentricityAhn(colour, position, ellipse, x, y, norm, kFocal, kRadius);
    expect(norm >= 0, "correctedEccentricityAhn");
    e.correctedEccentricityAhn(colour, position, ellipse, x, y, norm);

    std::vector<Point3_<double>> points;
    std::vector<cv::RotatedRect> leftRects, rightRects;
    const auto near = [&points](std::size_t count) {
        for (const auto& p : points) count += std::abs(p.z - kDepth) < 10 ? 0U : 1000U;
        return count == 2 && points.size() == 2;
    };
    expect(near(getStereoMarker3dPoints(left, right, e, points, leftRects, rightRects, configs).size()), "from images");
    expect(near(getStereoMarker3dPoints(simple, door, e.leftTriangulation, e.leftIntrinsic, e.rightIntrinsic, fundamental, points).size()),
           "from corners");
    points.clear();
    cv::Mat turn = cv::Mat::eye(3, 3, CV_64F);
    expect(near(getStereoRectifiedMarker3dPoints(simple, door, configs.markerRadii, points, turn, e.leftProjection, e.rightProjection, 2, 500, 2000,
                                                 false, false, 0.2, 3, true, 0.2, 0.2)
                    .size()),
           "from rectified corners");
    CircleMarkerExtractor copy(e);
    copy = e;
    std::puts("every operation");
}
