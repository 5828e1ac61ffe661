// SPDX-License-Identifier: Apache-2.0
//
// Matrices that a host hands in or writes into an extractor: those that cannot be used are refused by name before anything is written.
#include "support/calls.h"
#include "support/every_operation.h"

namespace kestrune::test::matrices {

using every_operation::Host;
using E = CircleMarkerExtractor;
using M = const cv::Mat&;

const cv::Mat kNone, kSquare = cv::Mat::eye(3, 3, CV_64F), kWide = cv::Mat::eye(3, 4, CV_64F), kPairs(1, 5, CV_64FC2, cv::Scalar::all(0));

TEST(MatricesOfTheHost, AreRefusedByNameWithNothingWritten) {
    Host h;
    E& e = h.e;
    std::vector<Corner>&left = h.found[0], &right = h.found[1], target;
    std::vector<Point3_<double>> points;
    cv::RotatedRect rect;
    double x = 7;
    const int cube[] = {3, 3, 4};
    cv::Mat F, I = kSquare, T = cv::Mat::ones(3, 1, CV_64F), volume(3, cube, CV_32F);
    const auto rectify = [&](M camera, M lens, M turn, M projection, M homography) {
        e.StereoRectifyCorners(left, target, camera, lens, turn, projection, homography);
    };
    const auto cornersOf = [&](cv::Mat pose, cv::Mat leftCamera, cv::Mat rightCamera, cv::Mat fundamental) {
        getStereoMarker3dPoints(left, right, pose, leftCamera, rightCamera, fundamental, points);
    };
    const auto rectifiedOf = [&](cv::Mat turn, cv::Mat leftProjection, cv::Mat rightProjection) {
        getStereoRectifiedMarker3dPoints(left, right, {5}, points, turn, leftProjection, rightProjection, 2, 1, 9, false, false, 1, 2, false, 1, 1);
    };
    enum Check { kData, kDouble, kEither };  // what is asked: elements, a form in double, or in either precision
    const std::tuple<const char*, Check, std::function<void(cv::Mat)>> arguments[] = {
        {"cameraMatrix", kData, [&](M m) { e.UndistortCorners(left, m, kNone); }},
        {"distCoeffs", kData, [&](M m) { e.UndistortCorners(left, I, m); }},
        {"distCoeffs", kData, [&](M) { e.UndistortCorners(left, I, kPairs); }},
        {"cameraMatrix", kData, [&](M m) { rectify(m, kNone, I, kWide, I); }},
        {"distCoeffs", kData, [&](M) { rectify(I, kPairs, I, kWide, I); }},
        {"rectification", kData, [&](M m) { rectify(I, kNone, m, kWide, I); }},
        {"projection", kData, [&](M m) { rectify(I, kNone, I, m, I); }},
        {"homography", kDouble, [&](M m) { rectify(I, kNone, I, kWide, m); }},
        {"position", kDouble, [&](cv::Mat m) { e.correctedEccentricityAhn(F, m, rect, x, x, x); }},
        {"image", kData, [&](M) { e.correctedEccentricityAhn(volume, T, rect, x, x, x); }},
        {"depth", kData, [&](cv::Mat m) { e.DetectFeaturePointsAndInterpolate_binocular(left, m, I); }},
        {"depth", kData, [&](M) { e.DetectFeaturePointsAndInterpolate_binocular(left, volume, I); }},
        {"cameraMatrix", kDouble, [&](M m) { e.DetectFeaturePointsAndInterpolate_binocular(left, h.depth, m); }},
        {"R", kDouble, [&](cv::Mat m) { e.CalcFoundationMat(m, T, I, I, F); }},
        {"T", kDouble, [&](cv::Mat m) { e.CalcFoundationMat(I, m, I, I, F); }},
        {"K1", kDouble, [&](cv::Mat m) { e.CalcFoundationMat(I, T, m, I, F); }},
        {"K2", kDouble, [&](cv::Mat m) { e.CalcFoundationMat(I, T, I, m, F); }},
        {"left camera matrix", kDouble, [&](M m) { E().SetTriangulationIntrinsicMatrix(m, I); }},
        {"right camera matrix", kDouble, [&](M m) { E().SetTriangulationIntrinsicMatrix(I, m); }},
        {"matrices[3]", kData,
         [&](M m) {
             E().SetStereorectifyParam({kWide, kWide, I, m});
         }},
        {"relativePose", kDouble, [&](M m) { cornersOf(m, I, I, I); }},
        {"leftCamera", kDouble, [&](M m) { cornersOf(kWide, m, I, I); }},
        {"rightCamera", kDouble, [&](M m) { cornersOf(kWide, I, m, I); }},
        {"fundamental", kEither, [&](M m) { cornersOf(kWide, I, I, m); }},
        {"rotation", kDouble, [&](M m) { rectifiedOf(m, kWide, kWide); }},
        {"leftProjection", kEither, [&](M m) { rectifiedOf(I, m, kWide); }},
        {"rightProjection", kEither, [&](M m) { rectifiedOf(I, kWide, m); }}};
    for (const auto& [name, check, call] : arguments) {
        std::vector<cv::Mat> bad = {hollow(3, 4)};
        if (check != kData)
            bad.insert(bad.end(), {cv::Mat(), cv::Mat(2, 2, CV_64F), cv::Mat(3, cube, CV_64F), cv::Mat(3, 3, CV_32S), kWide.reshape(2)});
        if (check == kDouble) bad.emplace_back(3, 3, CV_32F);
        for (const cv::Mat& m : bad) EXPECT_EQ(refused([&, &run = call] { run(m); }), name) << m.size() << m.type() << m.dims;
    }
    EXPECT_EQ(std::tuple(left.size(), left[0].matched, target.size(), points.size(), x, F.empty()), std::tuple(4u, false, 0u, 0u, 7, true));
}

TEST(MatricesOfTheHost, WrittenIntoAnExtractorAreRefusedByThePathThatReadsThem) {
    const Host whole;
    // Name, member, who reads it: stereo by constellation, of rectified corners, by conics, of rectified corners. Without
    // one of the first six nothing is measured at all.
    enum Readers { kRows = 1, kRectifiedRows = 2, kConics = 4, kRectifiedConics = 8, kAll = 15 };
    const std::tuple<const char*, cv::Mat E::*, int> members[] = {{"leftIntrinsic", &E::leftIntrinsic, kRows | kConics},
                                                                  {"rightIntrinsic", &E::rightIntrinsic, kRows | kConics},
                                                                  {"leftRectification", &E::leftRectification, kAll},
                                                                  {"rightRectification", &E::rightRectification, kRows | kConics},
                                                                  {"leftProjection", &E::leftProjection, kAll},
                                                                  {"rightProjection", &E::rightProjection, kAll},
                                                                  {"leftHomography", &E::leftHomography, kRows},
                                                                  {"rightHomography", &E::rightHomography, kRows},
                                                                  {"leftTriangulation", &E::leftTriangulation, kConics},
                                                                  {"rightTriangulation", &E::rightTriangulation, kRectifiedConics},
                                                                  {"fundamental", &E::fundamental, kConics},
                                                                  {"disparityToDepth", &E::disparityToDepth, kConics | kRectifiedConics}};
    for (std::size_t k = 0; k < 12 * 4 * 3; ++k) {
        const auto& [name, member, readers] = members[k / 12];
        const std::size_t reader = k / 3 % 4, bad = k % 3;
        CicrleConfigs c = Host::settings(reader / 2);
        c.skipUndistort = true, c.cornersRectified = reader % 2;
        E e = whole.e;
        e.*member = bad == 0 ? cv::Mat(2, 2, CV_64F) : bad == 1 ? cv::Mat(3, 3, CV_32S) : hollow(3, 3);
        e.markerRects.resize(2), e.markerName = "before";
        std::vector<Point3_<double>> points(9);
        std::vector<cv::RotatedRect> rects[2];
        const std::string told = refused([&] { getStereoMarker3dPoints(whole.left, whole.right, e, points, rects[0], rects[1], c); });
        const bool isMissing = bad == 2 && k / 12 < 6, isRefused = !isMissing && (readers >> reader & 1) != 0;
        EXPECT_EQ(told, isRefused ? name : "") << k;
        EXPECT_EQ(points.size(), isRefused || isMissing ? 9u : 4u) << name << k;
        EXPECT_EQ(e.markerRects.size() == 2 && e.markerName == "before", isRefused || isMissing) << name << k;
    }
}

}  // namespace kestrune::test::matrices
