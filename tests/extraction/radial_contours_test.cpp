// SPDX-License-Identifier: Apache-2.0
#include "MarkerExtractor/extraction/radial_contours.h"

#include <gtest/gtest.h>

#include <numbers>

#include "support/configs.h"

namespace kestrune {
namespace {

std::vector<cv::Point2f> directionTable(int n) {
    std::vector<cv::Point2f> table;
    for (int i = 0; i < n; ++i) {
        const double a = 2 * std::numbers::pi * i / n;
        table.emplace_back(static_cast<float>(std::cos(a)), static_cast<float>(std::sin(a)));
    }
    return table;
}

TEST(RadiusPasses, MatchTablesWorkedOutByHand) {
    const struct {
        const char* what;
        std::vector<float> in, median, smooth;
    } cases[] = {
        // Median: upper middle of the positive radii within two places. Smoothing: mean of two on either side.
        // A spike of 30 shifts the mean of four neighbours by 7.5 and takes those with it.
        {"a spike", {10, 10, 10, 40, 10, 10, 10, 10}, {10, 10, 10, 10, 10, 10, 10, 10}, {10, -1, -1, -1, -1, -1, 10, 10}},
        {"a gap is closed", {10, 10, 10, -1, 10, 10, 10, 10}, {10, 10, 10, 10, 10, 10, 10, 10}, {10, 10, 10, -1, 10, 10, 10, 10}},
        {"two are no median",
         {8, 9, -1, -1, -1, -1, -1, -1, -1, -1},
         {-1, -1, -1, -1, -1, -1, -1, -1, -1, -1},
         {9, 8, -1, -1, -1, -1, -1, -1, -1, -1}},
        {"three are", {8, 9, 10, -1, -1, -1, -1, -1, -1, -1}, {9, 9, 9, -1, -1, -1, -1, -1, -1, -1}, {9.5f, 9, 8.5f, -1, -1, -1, -1, -1, -1, -1}},
        {"a lone one is lost", {-1, 9, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1}, std::vector<float>(14, -1), std::vector<float>(14, -1)},
        {"exactly 3 off stays", {13, 10, 10, 10, 10, 10, 10, 10}, {10, 10, 10, 10, 10, 10, 10, 10}, {10, 10.75f, 10.75f, 10, 10, 10, 10.75f, 10.75f}},
        // Nearest kept on either side, at most six places away: 4 sees 2, 1 behind it and none before.
        {"beyond six places nobody counts",
         {-1, 20, 20, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1},
         std::vector<float>(16, -1),
         {-1, 20, 20, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1}},
    };
    for (const auto& c : cases) {
        std::vector<float> radii = c.in;
        medianFilterRadii(radii, 2);
        EXPECT_EQ(radii, c.median) << c.what;
        radii = c.in;
        rejectAndSmoothRadii(radii, 3.0f, 2);
        EXPECT_EQ(radii, c.smooth) << c.what;
    }
}

TEST(MeanInDisc, CountsPixelCentres) {
    cv::Mat ramp(20, 20, CV_8UC1);
    for (int k = 0; k < 400; ++k) ramp.at<uchar>(k / 20, k % 20) = static_cast<uchar>(10 * (k % 20));
    const struct {
        cv::Point2f centre;
        float radius, mean;
        int count;
    } cases[] = {
        {{10, 10}, 1.0f, 100, 5},                                    // the four neighbours lie on the circle
        {{10, 10}, 1.5f, 100, 9},     {{0, 0}, 1.0f, 10.0f / 3, 3},  // cut by the corner
        {{10.5f, 10.5f}, 0.5f, 0, 0},                                // between four pixels
        {{40, 40}, 3.0f, 0, 0},                                      // off the image
    };
    for (const auto& c : cases) {
        const auto [mean, count] = meanInDisc(ramp, c.centre, c.radius);
        EXPECT_FLOAT_EQ(mean, c.mean);
        EXPECT_EQ(count, c.count);
    }
}

TEST(SampleBilinear, EndsAtTheOutermostPixelCentres) {
    const cv::Mat image = (cv::Mat_<uchar>(2, 2) << 0, 100, 50, 200);
    const struct {
        float x, y;
        bool valid;
        float value;
    } cases[] = {{0.5f, 0, true, 50},   {0, 0.5f, true, 25},  {0.5f, 0.5f, true, 87.5f}, {1, 1, true, 200},
                 {-0.01f, 0, false, 0}, {1.01f, 0, false, 0}, {0, 1.01f, false, 0},      {std::nanf(""), 0, false, 0}};
    for (const auto& c : cases) {
        const GreySample sample = sampleBilinear(image, c.x, c.y);
        EXPECT_EQ(sample.valid, c.valid);
        EXPECT_FLOAT_EQ(sample.value, c.value);
    }
}

TEST(SearchRadialEdges, MeasuresHalfAPixelInsideTheRim) {
    const auto rays = directionTable(72);
    for (const double radius : {8.0, 14.5, 30.0}) {
        const cv::Point2d centre(60.25, 59.5);
        const cv::Mat image = test::discImage({120, 120}, centre, radius);
        std::vector<cv::Point2f> points;
        const auto r = static_cast<float>(radius);
        searchRadialEdges(image, centre, 0.375f * r, 1.75f * r, points, rays, 12, 0.9f);
        ASSERT_EQ(points.size(), 72u);
        cv::Point2d mean(0, 0);
        for (const cv::Point2f& p : points) {
            EXPECT_NEAR(std::hypot(p.x - centre.x, p.y - centre.y), radius - 0.5, 0.15) << radius;
            mean += cv::Point2d(p) / 72;
        }
        EXPECT_LT(cv::norm(mean - centre), 0.02);
    }
}

TEST(SearchRadialEdges, GuardsTheBorderAndCountsRays) {
    const auto rays = directionTable(72);
    cv::Mat image = test::discImage({80, 80}, {40, 40}, 12);
    std::vector<cv::Point2f> points;
    const struct {
        const char* what;
        float x, rOut;
        int drop;
        float ratio;
        bool found;
    } cases[] = {
        {"inside", 40, 20, 12, 0.6f, true},
        {"outer circle and 3 px just reach the border", 39, 36, 12, 0.6f, true},
        {"a hair beyond it", 38.99f, 36, 12, 0.6f, false},
        {"no fall that large", 40, 20, 200, 0.6f, false},
        {"no rays asked for, but the border is", 5, 20, 12, 0.0f, false},
    };
    for (const auto& c : cases) {
        points.assign(3, {});
        searchRadialEdges(image, {c.x, 40}, 4, c.rOut, points, rays, c.drop, c.ratio);
        EXPECT_EQ(!points.empty(), c.found) << c.what;
    }
    image.colRange(40, 80).setTo(200);  // half of the rim is gone
    for (const auto& [ratio, found] : {std::pair{0.4f, true}, std::pair{0.6f, false}}) {
        searchRadialEdges(image, {40, 40}, 4, 20, points, rays, 12, ratio);
        EXPECT_EQ(!points.empty(), found) << ratio;
    }
}

TEST(ProbeRadialContrast, IsTheShareOfDirectionsThatFall) {
    cv::Mat image = test::discImage({60, 60}, {30, 30}, 10);
    const auto probes = directionTable(24);
    EXPECT_FLOAT_EQ(probeRadialContrast(image, {30, 30}, 10, 15, 100, probes, 2), 1.0f);
    EXPECT_FLOAT_EQ(probeRadialContrast(image, {30, 30}, 10, 15, 170, probes, 2), 0.0f);
    image.rowRange(31, 60).setTo(200);  // 11 of 24 directions point down and see no fall; the two level ones do
    EXPECT_FLOAT_EQ(probeRadialContrast(image, {30, 30}, 10, 15, 100, probes, 2), 13.0f / 24);
}

struct RadialCase {
    const char* what;
    cv::Mat image;
    int scale;
    bool refine;
    float minRayRatio;
    std::vector<std::size_t> pointCounts;  ///< of each accepted blob
};

TEST(DetectRadialContours, AcceptsBrightRoundBlobsOnly) {
    const auto disc = [](cv::Point2d centre, double radius) { return test::discImage({160, 120}, centre, radius); };
    const auto box = [](cv::Rect rect) {
        cv::Mat image(120, 160, CV_8UC1, cv::Scalar(40));
        image(rect).setTo(200);
        return image;
    };
    const RadialCase cases[] = {
        {"a disc", disc({80, 60}, 14), 1, false, 0.6f, {72}},
        {"a disc, reduced", disc({80, 60}, 14), 2, false, 0.6f, {72}},
        {"a disc, reduced and detected again", disc({80, 60}, 14), 2, true, 0.6f, {72}},
        {"a dark disc", test::discImage({160, 120}, {80, 60}, 14, 40, 200), 1, false, 0.6f, {}},
        {"a thin bar: too small before it is too long", box({20, 60, 100, 3}), 1, false, 0.0f, {}},
        {"a bar of ratio above 3", box({60, 60, 31, 10}), 1, false, 0.0f, {}},
        {"a blob at the border", disc({18, 60}, 14), 1, false, 0.6f, {}},
        {"the same, without asking for rays: a blob without points", disc({18, 60}, 14), 1, false, 0.0f, {0}},
        {"surroundings off the image: dropped only if detected again", disc({18, 60}, 14), 2, true, 0.0f, {}},
        {"nothing", cv::Mat(120, 160, CV_8UC1, cv::Scalar(40)), 1, false, 0.6f, {}},
    };
    for (const RadialCase& c : cases) {
        cv::Mat working, blurred, binary, fullBinary, labels;
        cv::resize(c.image, working, c.image.size() / c.scale);
        std::vector<SubpixelContour> contours(3);  // emptied first
        detectRadialContours(working, c.image, blurred, binary, fullBinary, labels, 1.0, 31, contours, directionTable(72), directionTable(24), 12, -8,
                             c.scale, c.refine, c.minRayRatio, 25);
        std::vector<std::size_t> counts;
        for (const SubpixelContour& contour : contours) counts.push_back(contour.points.size());
        EXPECT_EQ(counts, c.pointCounts) << c.what;
    }
}

}  // namespace
}  // namespace kestrune
