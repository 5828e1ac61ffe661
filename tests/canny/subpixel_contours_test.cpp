// SPDX-License-Identifier: Apache-2.0
#include "canny/subpixel_contours.h"

#include <gtest/gtest.h>

#include <deque>
#include <numbers>

#include "support/configs.h"

namespace kestrune {
namespace {

TEST(EdgeDerivativeKernel, MatchesTapsWorkedOutByHand) {
    // i (1 - exp(-i^2/2)) for i = 1, 2, 3: 0.39347, 1.72933, 2.96667; times 128 / 5.08947.
    const std::vector<short> sigma1 = {-75, -43, -10, 0, 10, 43, 75};
    // sigma 0.5: 3 sigma = 1.5 goes to the even 2; 1 - exp(-2), 2 (1 - exp(-8)): 0.86466, 1.99933; times 128 / 2.86399.
    const std::vector<short> sigmaHalf = {-89, -39, 0, 39, 89};
    for (const auto& [sigma, taps] : {std::pair{1.0, sigma1}, std::pair{0.5, sigmaHalf}}) {
        const cv::Mat kernel = makeEdgeDerivativeKernel(sigma);
        ASSERT_EQ(kernel.type(), CV_16SC1);
        EXPECT_EQ(std::vector<short>(kernel.begin<short>(), kernel.end<short>()), taps) << "sigma " << sigma;
    }
}

TEST(SquaredMagnitudes, VectorFormGivesTheNumbersOfThePlainOne) {
    cv::Mat dx(1, 1003, CV_16SC1), dy(1, 1003, CV_16SC1);
    cv::RNG rng(7);
    rng.fill(dx, cv::RNG::UNIFORM, -32768, 32768);
    rng.fill(dy, cv::RNG::UNIFORM, -32768, 32768);
    dx.at<short>(3) = dy.at<short>(3) = -32768;  // 2^31: wraps in both
    for (const int count : {1, 7, 8, 9, 1003}) {
        std::vector<int> plain(1003, -1), vector(1003, -1);
        squaredMagnitudesPlain(dx.ptr<short>(), dy.ptr<short>(), plain.data(), count);
        squaredMagnitudesVector(dx.ptr<short>(), dy.ptr<short>(), vector.data(), count);
        EXPECT_EQ(plain, vector) << count;
    }
}

/// The rule as one would write it on paper: whole magnitude image, all seeds, flood from them.
cv::Mat edgesByFlooding(const cv::Mat& dx, const cv::Mat& dy, std::int64_t low, std::int64_t high) {
    const auto magnitude = [&](int y, int x) -> std::int64_t {
        if (y < 0 || x < 0 || y >= dx.rows || x >= dx.cols) return 0;
        const std::int64_t a = dx.at<short>(y, x), b = dy.at<short>(y, x);
        return a * a + b * b;
    };
    cv::Mat edges = cv::Mat::zeros(dx.size(), CV_8UC1), candidate = cv::Mat::zeros(dx.size(), CV_8UC1);
    std::deque<cv::Point> open;
    for (int y = 0; y < dx.rows; ++y) {
        for (int x = 0; x < dx.cols; ++x) {
            const std::int64_t m = magnitude(y, x);
            if (m <= low * low) continue;
            const int gx = dx.at<short>(y, x), gy = dy.at<short>(y, x);
            const std::int64_t up = std::abs(gy) * std::int64_t{32768}, flat = std::abs(gx) * std::int64_t{13573};
            bool largest = false;
            if (up < flat) {
                largest = m > magnitude(y, x - 1) && m >= magnitude(y, x + 1);
            } else if (up > flat + std::abs(gx) * std::int64_t{65536}) {
                largest = m > magnitude(y - 1, x) && m >= magnitude(y + 1, x);
            } else {
                const int s = (gx < 0) != (gy < 0) ? -1 : 1;
                largest = m > magnitude(y - 1, x - s) && m > magnitude(y + 1, x + s);
            }
            candidate.at<uchar>(y, x) = largest;
            if (largest && m > high * high) open.emplace_back(x, y);
        }
    }
    for (const cv::Point& seed : open) edges.at<uchar>(seed) = 255;
    for (; !open.empty(); open.pop_front()) {
        for (int k = 0; k < 9; ++k) {
            const cv::Point p = open.front() + cv::Point(k % 3 - 1, k / 3 - 1);
            if (!cv::Rect({}, dx.size()).contains(p) || !candidate.at<uchar>(p) || edges.at<uchar>(p)) continue;
            edges.at<uchar>(p) = 255;
            open.push_back(p);
        }
    }
    return edges;
}

TEST(SuppressAndLinkEdges, EqualsFloodingFromAllSeeds) {
    cv::RNG rng(11);
    const cv::Size sizes[] = {{1, 1}, {3, 3}, {1, 40}, {40, 1}, {16, 9}, {33, 17}, {257, 64}};
    const struct { int low, high, spread; } levels[] = {{0, 0, 300}, {150, 400, 300}, {20000, 30000, 32767}, {-5, 60000, 200}};
    for (const cv::Size size : sizes) {
        for (const auto& level : levels) {
            cv::Mat dx(size, CV_16SC1), dy(size, CV_16SC1), edges;
            rng.fill(dx, cv::RNG::UNIFORM, -level.spread, level.spread + 1);
            rng.fill(dy, cv::RNG::UNIFORM, -level.spread, level.spread + 1);
            suppressAndLinkEdges(dx, dx, dy, level.low, level.high, edges);
            const cv::Mat expected = edgesByFlooding(dx, dy, std::max(0, level.low), level.high);
            EXPECT_EQ(cv::norm(edges, expected, cv::NORM_INF), 0) << size << " low " << level.low;
        }
    }
}

TEST(CutIntoStrips, CoversEveryColumnOnce) {
    const struct {
        int columns;
        unsigned concurrency;
        std::vector<int> widths;
    } cases[] = {{100, 0, {100}}, {100, 1, {100}}, {10, 3, {3, 3, 4}}, {2, 8, {1, 1}}, {1, 64, {1}}, {8, 8, {1, 1, 1, 1, 1, 1, 1, 1}}};
    for (const auto& c : cases) {
        std::vector<int> widths;
        int next = 0;
        for (const EdgeStrip& strip : cutIntoStrips(c.columns, c.concurrency)) {
            EXPECT_EQ(strip.firstColumn, next);
            next += strip.width;
            widths.push_back(strip.width);
        }
        EXPECT_EQ(widths, c.widths);
    }
}

TEST(SelectInnerContours, KeepsTheInnerSideOfLoops) {
    // Contour 0 is the outer side of a loop, 1 its inner side; what lies inside differs.
    using Tree = std::vector<cv::Vec4i>;
    const struct {
        const char* what;
        std::vector<int> lengths;
        Tree tree;
        std::vector<int> kept;
    } cases[] = {
        {"a bare loop", {30, 28}, {{-1, -1, 1, -1}, {-1, -1, -1, 0}}, {1}},
        {"too short", {30, 9}, {{-1, -1, 1, -1}, {-1, -1, -1, 0}}, {}},
        {"exactly long enough", {30, 10}, {{-1, -1, 1, -1}, {-1, -1, -1, 0}}, {1}},
        {"a speck inside", {30, 28, 9}, {{-1, -1, 1, -1}, {-1, -1, 2, 0}, {-1, -1, -1, 1}}, {1}},
        {"a long one inside", {30, 28, 10}, {{-1, -1, 1, -1}, {-1, -1, 2, 0}, {-1, -1, -1, 1}}, {2}},
        {"a long one behind a speck", {30, 28, 2, 12}, {{-1, -1, 1, -1}, {-1, -1, 2, 0}, {3, -1, -1, 1}, {-1, 2, -1, 1}}, {3}},
        {"a long one inside a speck's child", {30, 28, 2, 12}, {{-1, -1, 1, -1}, {-1, -1, 2, 0}, {-1, -1, 3, 1}, {-1, -1, -1, 2}}, {1, 3}},
        {"a long one before the first child", {30, 28, 2, 12}, {{-1, -1, 1, -1}, {-1, -1, 2, 0}, {-1, 3, -1, 1}, {2, -1, -1, -1}}, {}},
    };
    for (const auto& c : cases) {
        std::vector<std::vector<cv::Point>> contours;
        for (const int length : c.lengths) contours.emplace_back(static_cast<std::size_t>(length));
        EXPECT_EQ(selectInnerContours(contours, c.tree, 10), c.kept) << c.what;
    }
}

TEST(RefineContours, FindsTheTopOfAParabolicRidge) {
    const double pi = std::numbers::pi;
    const struct {
        const char* what;
        double top;
        bool vertical;
        cv::Point pixel;
        cv::Point2f expected;
        double direction;
    } cases[] = {
        {"right of the pixel", 3.25, true, {3, 3}, {3.25f, 3}, pi / 2},
        {"left of the pixel", 2.7, true, {3, 3}, {2.7f, 3}, pi / 2},
        {"too far: stays", 3.75, true, {3, 3}, {3, 3}, pi / 2},
        {"below, in a row ridge", 3.25, false, {3, 3}, {3, 3.25f}, 0},
        {"at the border, with the row doubled", 3.25, true, {3, 0}, {3.25f, 0}, pi / 2},
    };
    for (const auto& c : cases) {
        cv::Mat dx = cv::Mat::zeros(7, 7, CV_16SC1), dy = dx.clone();
        for (int y = 0; y < 7; ++y) {
            for (int x = 0; x < 7; ++x) {
                const double d = (c.vertical ? x : y) - c.top;
                (c.vertical ? dx : dy).at<short>(y, x) = static_cast<short>(std::lround(20000 - 800 * d * d));
            }
        }
        std::vector<SubpixelContour> contours;
        refineContours(dx, dy, {{c.pixel}}, contours);
        ASSERT_EQ(contours.size(), 1u);
        EXPECT_NEAR(contours[0].points[0].x, c.expected.x, 1e-3) << c.what;
        EXPECT_NEAR(contours[0].points[0].y, c.expected.y, 1e-3) << c.what;
        EXPECT_NEAR(contours[0].direction[0], c.direction, 1e-6) << c.what;
        const double height = 20000 - 800 * std::pow((c.vertical ? c.pixel.x : c.pixel.y) - c.top, 2);
        EXPECT_NEAR(contours[0].response[0], height / 128, 0.02) << c.what;  // the facet keeps a parabola's value
    }
}

TEST(RefineContours, LeavesAValleyOnItsPixel) {
    cv::Mat dx = cv::Mat::zeros(7, 7, CV_16SC1);
    const cv::Mat dy = dx.clone();
    for (int k = 0; k < 49; ++k) dx.at<short>(k / 7, k % 7) = static_cast<short>(900 + 700 * std::pow(k % 7 - 3.25, 2));
    std::vector<SubpixelContour> contours;
    refineContours(dx, dy, {{{3, 3}}}, contours);
    EXPECT_EQ(contours[0].points[0], cv::Point2f(3, 3));
    EXPECT_NEAR(contours[0].direction[0], std::numbers::pi / 2, 1e-6);
}

TEST(DetectSubpixelContours, TracesTheRimOfADiscWithAndWithoutThreads) {
    const cv::Point2d centre(61.3, 48.6);
    const cv::Mat image = test::discImage({120, 100}, centre, 20);
    for (const bool threaded : {false, true}) {
        std::vector<SubpixelContour> contours;
        detectSubpixelContours(image, 1.0, 5, 10, 30, contours, 20, cv::RETR_TREE, threaded);
        ASSERT_EQ(contours.size(), 1u);
        double sum = 0;
        for (const cv::Point2f& p : contours[0].points) sum += std::pow(std::hypot(p.x - centre.x, p.y - centre.y) - 20, 2);
        // The kernel's widening support shifts the top of the magnitude; half a pixel is the seat of whole pixels.
        EXPECT_LT(std::sqrt(sum / static_cast<double>(contours[0].points.size())), 0.45) << threaded;

        std::vector<SubpixelContour> again;
        detectSubpixelContours(image, 1.0, 5, 10, 30, again, 20, cv::RETR_TREE, threaded);
        EXPECT_EQ(contours[0].points, again[0].points);
        detectSubpixelContours(image, 1.0, 5, 400, 1 << 30, again, 20, cv::RETR_TREE, threaded);
        EXPECT_TRUE(again.empty()) << "nothing passes thresholds whose square leaves 32 bits";
    }
}

}  // namespace
}  // namespace kestrune
