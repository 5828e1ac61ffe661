// SPDX-License-Identifier: Apache-2.0

#include "MarkerExtractor/extraction/hand.h"
#include "support/calls.h"
#include "support/configs.h"

namespace kestrune::test::hand_depth {

CicrleConfigs handConfigs() {
    CicrleConfigs c{};
    c.minArea = 20, c.maxArea = 1e6, c.maxEccentricity = 0.9, c.maxFitError = 0.7, c.maxPointError = 1.5, c.markerName = "hand";
    return c;
}

std::vector<Corner> cornersAt(const std::vector<cv::Point2d>& centres) {
    std::vector<Corner> corners(centres.size());
    for (std::size_t k = 0; k < centres.size(); ++k) corners[k].x = centres[k].x, corners[k].y = centres[k].y, corners[k].id = 77;
    return corners;
}

/// White and black discs by turns, on black.
cv::Mat drawn(const std::vector<cv::Vec3d>& discs, int channels = 3) {
    cv::Mat image(120, 160, CV_8UC1, cv::Scalar(0)), result;
    for (std::size_t k = 0; k < discs.size(); ++k) addDisc(image, {discs[k][0], discs[k][1]}, discs[k][2], k % 2 ? 0 : 255, k % 2 ? 255 : 0);
    cv::merge(std::vector<cv::Mat>(static_cast<std::size_t>(channels), image), result);
    return result;
}

/// An outline through whole pixels: perimeter and area are exact.
std::vector<cv::Point> rectangle(int w, int h) {
    std::vector<std::vector<cv::Point>> outlines;
    cv::findContours(cv::Mat(h + 1, w + 1, CV_8UC1, cv::Scalar(255)), outlines, cv::RETR_EXTERNAL, cv::CHAIN_APPROX_NONE);
    return outlines[0];
}

TEST(HandPath, RefusesInOrderWithBothEndsInside) {
    // Width, height, bounds of area, eccentricity and fit error, gate, what it measured. The first has a compactness of 16,
    // the fourth of 25, just below twice that of a circle.
    const std::tuple<int, int, double, double, double, double, Gate, double> cases[] = {
        {20, 20, 400, 400, 0.9, kInf, Gate::kNone, 0},     {20, 20, 400.001, 1e6, 0.9, kInf, Gate::kArea, 400},
        {20, 20, 1, 399.999, 0.9, kInf, Gate::kArea, 400}, {40, 10, 1, 1e6, 1, kInf, Gate::kNone, 0},
        {50, 10, 1, 1e6, 0, 0, Gate::kCompactness, 28.8},  {50, 0, 0, 1e6, 0, 0, Gate::kCompactness, kInf},
        {50, 50, kNaN, kNaN, kNaN, kNaN, Gate::kNone, 0}};
    CicrleConfigs c = handConfigs();
    c.maxPointError = kInf;
    for (const auto& [w, h, minArea, maxArea, maxEccentricity, maxFitError, gate, measured] : cases) {
        c.minArea = minArea, c.maxArea = maxArea, c.maxEccentricity = maxEccentricity, c.maxFitError = maxFitError;
        const GateVerdict verdict = judgeHandContour(rectangle(w, h), HandGates(c));
        EXPECT_EQ(std::pair(verdict.refusedBy, verdict.measured), std::pair(gate, measured)) << w << ' ' << h;
        EXPECT_TRUE(!verdict.accepted() || verdict.candidate.area == verdict.rect.size.width * verdict.rect.size.height);
    }
    c.minArea = 0, c.maxArea = 1e6, c.maxEccentricity = 0.9, c.maxFitError = 0.5;
    EXPECT_STREQ(judgeHandContour(rectangle(50, 10), HandGates(c)).candidate.ratioText, "ratio:28.80");
    EXPECT_EQ(judgeHandContour(rectangle(40, 10), HandGates(c)).refusedBy, Gate::kEccentricity);
    EXPECT_EQ(judgeHandContour(rectangle(20, 20), HandGates(c)).refusedBy, Gate::kFitError) << "the mean error alone decides";
    EXPECT_EQ(judgeHandContour({{2, 2}, {2, 3}, {3, 3}, {4, 3}, {3, 2}}, HandGates(c)).refusedBy, Gate::kFit) << "an ellipse that is not finite";
    EXPECT_THROW(judgeHandContour({{7, 7}}, HandGates(c)), cv::Exception) << "0 / 0 passes and meets the fit";
}

TEST(HandPath, FindsDiscsAndTheInnerEdgeOfARing) {
    for (const int channels : {3, 4}) {
        CircleMarkerExtractor extractor;
        extractor.markerRects.resize(2);
        cv::Mat image = drawn({{70.3, 60.6, 20}}, channels), rings = drawn({{70, 60, 40}, {71, 60.6, 25}, {70.4, 61.5, 12}}, channels);
        std::vector<Corner> corners, ring;
        ASSERT_TRUE(extractor.CircleExtractSimpleForHand(image, corners, 1, handConfigs()) && corners.size() == 1);
        const Corner& c = corners[0];
        EXPECT_LT(std::hypot(c.x - 70.3, c.y - 60.6), 0.3) << "whole pixels";
        EXPECT_NEAR(c.area, 1600, 120);
        EXPECT_NEAR(c.compactness, 4 * CV_PI, 1.6) << "steps lengthen the outline";
        EXPECT_TRUE(c.id == 0 && c.contour.size() > 100 && !c.conicValid && c.ellipse.size.empty() && c.circularity == 0);
        EXPECT_TRUE(extractor.markerName == "hand" && extractor.markerRects.size() == 2);
        EXPECT_TRUE(extractor.CircleExtractSimpleForHand(image, corners, 0, handConfigs()) && corners.size() == 2)
            << "an equal centre is no repetition";
        // The centres of these edges lie apart, and the smallest wins.
        ASSERT_TRUE(extractor.CircleExtractSimpleForHand(rings, ring, 0, handConfigs()) && ring.size() == 1);
        EXPECT_NEAR(ring[0].area, 4 * 12 * 12, 80);
    }
    // A square on black, darker by 3.75 from column to column: an edge begins at its left side and is followed down to its
    // right one. A step counts four times, at a corner 4.24 times.
    CicrleConfigs anyFit = handConfigs();
    anyFit.maxFitError = 9;
    for (const auto& [left, right, count] : {std::tuple(126, 47, 1u), {117, 47, 0u}, {126, 45, 0u}}) {
        const cv::Mat square = imageOf<uchar>({60, 60}, [l = left, r = right](int x, int y) {
            return std::max(std::abs(x - 30), std::abs(y - 30)) > 10 ? 0 : l + (r - l) * (x - 20) / 20;
        });
        cv::Mat colour;
        cv::merge(std::vector<cv::Mat>(3, square), colour);
        std::vector<Corner> corners;
        CircleMarkerExtractor().CircleExtractSimpleForHand(colour, corners, 0, anyFit);
        EXPECT_EQ(corners.size(), count) << left << ' ' << right;
    }
    GateVerdict oval;  // its smaller half axis, 14, is the reach
    oval.rect = cv::RotatedRect({0, 0}, {48, 28}, 0), oval.candidate.area = 9, oval.candidate.x = oval.candidate.y = 0;
    for (const double distance : {13.9, 14.0}) {
        std::vector<Corner> corners = cornersAt({{distance, 0}});
        EXPECT_EQ(admitHandMarker(oval, corners).outcome, distance < 14 ? Admission::kDropped : Admission::kAdded);
    }
}

TEST(HandPath, AnswersImagesItCannotWorkWith) {
    CircleMarkerExtractor extractor;
    std::vector<Corner> corners;
    const auto run = [&](cv::Mat image) {
        return refused([&] { EXPECT_FALSE(extractor.CircleExtractSimpleForHand(image, corners, 0, handConfigs())); });
    };
    const int cube[] = {3, 9, 9};
    for (const cv::Mat& bad : {cv::Mat(9, 9, CV_8UC2), cv::Mat(9, 9, CV_16UC3), cv::Mat(9, 9, CV_32FC1), cv::Mat(3, cube, CV_8UC3)})
        EXPECT_EQ(run(bad), "image");
    EXPECT_EQ(run(cv::Mat()) + run(drawn({}, 1)) + run(drawn({}, 3)), "") << "no markers, also in one channel";
    EXPECT_EQ(run(drawn({{70, 60, 20}}, 1)), "OpenCV") << "one channel with markers";
    EXPECT_EQ(corners.size(), 1u) << "keeps what was accepted";
    EXPECT_EQ(run(drawn({}, 1)), "OpenCV") << "an earlier marker counts";
    EXPECT_EQ(run(cv::Mat()), "");
    EXPECT_TRUE(extractor.markerName.empty() && corners.size() == 1);
}

TEST(DepthSampling, PlacesMarkersAndDropsThoseWithoutDepth) {
    // Depth is linear over the image, so that the interpolation is exact, but for one hole at (30, 12).
    const auto depthAt = [](double x, double y) { return 2 + 0.5 * x + 0.25 * y; };
    cv::Mat large = imageOf<float>({60, 44}, [&](int x, int y) { return depthAt(x - 5, y - 2); }), depth = large(cv::Rect(5, 2, 50, 40));
    depth.at<float>(12, 30) = 0;
    const std::vector<cv::Point2d> kept = {{10.5, 20.5}, {10, 20}, {0.25, 0.75}, {49, 39}, {31.25, 12.5}, {29, 12}, {17.125, 33.375}};
    std::vector<cv::Point2d> all = {{0, 5.5},   {5.5, 0},   {-0.5, 5},  {49.001, 39}, {49, 39.5},  {29.5, 11.5},      {30, 12}, {30.5, 12.5},
                                    {kNaN, 20}, {20, kNaN}, {kInf, 20}, {20, -kInf},  {1e300, 20}, {2147483648.5, 9}, {31, 12}, {20, -1e300}};
    for (std::size_t k = 0; k < kept.size(); ++k) all.insert(all.begin() + static_cast<int>(2 * k), kept[k]);
    std::vector<Corner> corners = cornersAt(all);
    CircleMarkerExtractor().DetectFeaturePointsAndInterpolate_binocular(corners, depth,
                                                                        (cv::Mat_<double>(3, 3) << 800, 0, 24.25, 0, 750, 19.5, 0, 0, 1));
    ASSERT_EQ(corners.size(), kept.size());
    for (std::size_t k = 0; k < kept.size(); ++k) {
        const auto [x, y] = kept[k];
        const double z = depthAt(x, y);
        const Corner& c = corners[k];
        EXPECT_TRUE(c.x == x && c.y == y && c.matched && c.id == static_cast<int>(k)) << "in order, and the ids close up";
        EXPECT_LT((c.position - Eigen::Vector3d((x - 24.25) * z / 800, (y - 19.5) * z / 750, z)).norm(), 3e-6) << x << ' ' << y;
        EXPECT_EQ(c.position, c.position.cast<float>().cast<double>()) << "single precision";
    }
}

TEST(DepthSampling, RefusesMatricesBeforeItReadsThem) {
    std::vector<Corner> corners = cornersAt({{5, 5}, {kNaN, 5}}), nothing;
    const auto run = [](std::vector<Corner>& list, cv::Mat depth, const cv::Mat& camera) {
        return refused([&] { CircleMarkerExtractor().DetectFeaturePointsAndInterpolate_binocular(list, depth, camera); });
    };
    const cv::Mat depth(20, 20, CV_32FC1, cv::Scalar(2)), camera = cv::Mat::eye(3, 3, CV_64F);
    for (const int type : {CV_64FC1, CV_16UC1, CV_8UC1, CV_32FC2, CV_32SC1}) EXPECT_EQ(run(corners, cv::Mat(20, 20, type), camera), "depth");
    EXPECT_TRUE(corners.size() == 2 && corners[0].id == 77 && !corners[0].matched);
    EXPECT_EQ(run(nothing, cv::Mat(), cv::Mat()), "");
    EXPECT_EQ(run(corners, cv::Mat(0, 0, CV_32FC1), camera), "");
    EXPECT_TRUE(corners.empty());
}

}  // namespace kestrune::test::hand_depth
