// SPDX-License-Identifier: Apache-2.0
#include "canny/fast_contours.h"

#include <map>

#include "canny/wide_lanes.h"
#include "support/configs.h"

namespace kestrune::test::fast_contours {

/// Noise, smoothed the more the higher `k` is, with discs and white frames in some.
cv::Mat testImage(cv::Size size, int k, cv::RNG& rng) {
    cv::Mat image(size, CV_8UC1);
    rng.fill(image, cv::RNG::UNIFORM, 0, 256);
    if (k % 4 > 0) cv::GaussianBlur(image, image, {}, k % 4 * 0.8);
    for (int i = 0; i < k % 3 * 3; ++i)
        cv::circle(image, {rng.uniform(0, size.width), rng.uniform(0, size.height)}, rng.uniform(2, 30), rng.uniform(0, 256), i % 2 - 1);
    if (k % 5 == 0) cv::rectangle(image, cv::Rect({}, size), 255);
    return image;
}

cv::Size testSize(int k, cv::RNG& rng) {
    return k % 9 == 0 ? cv::Size(rng.uniform(150, 400), rng.uniform(100, 200)) : cv::Size(rng.uniform(1, 71), rng.uniform(1, 71));
}

TEST(RowGaussian, GivesTheBitsOfGaussianBlur) {
    cv::RNG rng(3);
    RowGaussian::Scratch scratch;
    const std::pair<int, double> kernels[] = {{1, 1}, {3, 0.3}, {3, 5}, {5, 0.7}, {5, 1.1}, {7, 1.6}, {11, 1}, {15, 4}, {15, 2.5}};
    for (int k = 0; k < 180; ++k) {
        const auto [aperture, sigma] = kernels[k % 9];
        const std::optional<RowGaussian> gaussian = RowGaussian::of(aperture, sigma);
        ASSERT_TRUE(gaussian) << aperture << ' ' << sigma;
        const cv::Mat image = testImage(testSize(k / 2, rng), k / 9, rng);
        cv::Mat expected, row(1, RowGaussian::writtenColumns(image.cols), CV_8UC1);
        cv::GaussianBlur(image, expected, {aperture, aperture}, sigma, sigma, cv::BORDER_REFLECT_101);
        for (int y = 0; y < image.rows; ++y) {
            for (const bool wide : {false, hasWideLanes()}) {
                gaussian->smoothRow(image, y, scratch, row.data, wide);
                ASSERT_EQ(cv::norm(row.colRange(0, image.cols), expected.row(y), cv::NORM_INF), 0) << image.size() << ' ' << aperture;
            }
        }
    }
    EXPECT_FALSE(RowGaussian::of(17, 5));
}

TEST(ContourTracer, GivesTheContoursAndTheTreeOfFindContours) {
    cv::RNG rng(5);
    EdgeMap map;
    ContourTracer tracer;
    for (int k = 0; k < 3000; ++k) {  // often more contours than there are labels
        cv::Mat grey = testImage(testSize(k, rng), k, rng), edges = grey > rng.uniform(0, 256);
        if (k % 2 == 0) edges &= grey < rng.uniform(128, 256);
        std::vector<std::vector<cv::Point>> expected;
        std::vector<cv::Vec4i> links;
        cv::findContours(edges, expected, links, cv::RETR_TREE, cv::CHAIN_APPROX_NONE);

        std::vector<EdgePixels> pixels(1);
        if (cv::countNonZero(edges) > 0) cv::findNonZero(edges, pixels[0].candidates);
        map.begin(edges.size());
        map.mark(pixels[0].candidates);
        pixels[0].seeds = pixels[0].candidates;
        map.link(pixels, 0, edges.cols);
        map.settle(pixels, true);
        tracer.trace(map);
        map.end();
        const std::vector<int>& order = tracer.inTreeOrder();
        ASSERT_EQ(order.size(), expected.size()) << k;
        std::map<int, int> place = {{-1, -1}};
        for (const int c : order) place.emplace(c, static_cast<int>(place.size()) - 1);
        for (std::size_t i = 0; i < order.size(); ++i) {
            const ContourTracer::Contour& contour = tracer.contours()[static_cast<std::size_t>(order[i])];
            const cv::Point* const points = tracer.pointsOf(contour);
            ASSERT_EQ(std::vector<cv::Point>(points, points + contour.length), expected[i]) << k;
            ASSERT_EQ((std::array{place[contour.nextSibling], place[contour.firstChild], place[contour.parent]}),
                      (std::array{links[i][0], links[i][2], links[i][3]}))
                << k;
        }
    }
}

TEST(EdgeRows, GivesTheSamePixelsWithAndWithoutWideLanes) {
    cv::RNG rng(9);
    for (int k = 0; k < 60; ++k) {
        const cv::Mat image = testImage({64 + k, 20}, k, rng);
        const std::optional<EdgeRows> rule = EdgeRows::of(makeEdgeDerivativeKernel(0.4 + k % 6 * 0.4), k * 64, k * 128);
        const int reach = rule->radius() + 1;
        SmoothedRows rows;
        rows.begin(0);
        for (int y = 0; y < image.rows; ++y) rows.add(image.ptr(y) + SmoothedRows::kMargin);
        EdgePixels pixels[2];
        for (const bool wide : {false, true}) {
            GradientRows scratch;
            const cv::Rect strip(0, reach, k % 17 + 1, 20 - 2 * reach);
            rule->suppress(rows, strip, strip, wide && hasWideLanes(), scratch, pixels[wide]);
        }
        EXPECT_EQ(pixels[0].candidates, pixels[1].candidates) << k;
        EXPECT_EQ(pixels[0].seeds, pixels[1].seeds) << k;
    }
}

TEST(DetectContourPoints, GivesThePointsOfTheWholeFrontEnd) {
    cv::RNG rng(7);
    EdgeScratch scratch;
    std::size_t points = 0;
    for (int k = 0; k < 900; ++k) {
        const cv::Mat image = testImage(testSize(k, rng), k / 4, rng);
        const int low = k % 6 * 8 - 4;
        const EdgeSettings settings(0.3 + k % 8 * 0.3, 1 + k % 8 * 2, low, low + k % 5 * 20, k % 3 * 8, cv::RETR_TREE, k % 2 == 1);
        std::vector<SubpixelContour> expected, found(3);
        detectSubpixelContours(image, settings, expected, nullptr);
        ASSERT_TRUE(detectContourPoints(image, settings, scratch, found)) << k;
        ASSERT_EQ(found.size(), expected.size()) << k << ' ' << image.size();
        for (std::size_t c = 0; c < found.size(); ++c) {
            ASSERT_EQ(found[c].points, expected[c].points) << k << ' ' << image.size();
            points += found[c].points.size();
        }
    }
    EXPECT_GT(points, 10'000u);
    std::vector<SubpixelContour> found;
    EXPECT_FALSE(detectContourPoints(cv::Mat(9, 9, CV_8UC1), EdgeSettings(3, 5, 1, 2, 3, cv::RETR_TREE, false), scratch, found));
    EXPECT_FALSE(detectContourPoints(cv::Mat(9, 9, CV_8UC1), EdgeSettings(1, 5, 1, 2, 3, cv::RETR_LIST, false), scratch, found));
}

}  // namespace kestrune::test::fast_contours
