// SPDX-License-Identifier: Apache-2.0
#include "canny/subpixel_contours.h"

#include <deque>

#include "support/configs.h"

namespace kestrune::test::subpixel_contours {

TEST(EdgeDerivativeKernel, MatchesTapsWorkedOutByHand) {
    // i (1 - exp(-i^2/2)) for i = 1, 2, 3: 0.39347, 1.72933, 2.96667; times 128 / 5.08947.
    // sigma 0.5: 3 sigma = 1.5 goes to the even 2; 1 - exp(-2), 2 (1 - exp(-8)): 0.86466, 1.99933; times 128 / 2.86399.
    const std::pair<double, std::vector<short>> cases[] = {{1.0, {-75, -43, -10, 0, 10, 43, 75}}, {0.5, {-89, -39, 0, 39, 89}}};
    for (const auto& [sigma, taps] : cases) {
        const cv::Mat kernel = makeEdgeDerivativeKernel(sigma);
        ASSERT_EQ(kernel.type(), CV_16SC1);
        EXPECT_EQ(std::vector<short>(kernel.begin<short>(), kernel.end<short>()), taps) << "sigma " << sigma;
    }
    EXPECT_EQ(makeEdgeDerivativeKernel(341).rows, 2 * 1023 + 1);
    EXPECT_THROW(makeEdgeDerivativeKernel(341.01), cv::Exception);
}

std::array<cv::Mat, 2> randomDerivatives(cv::Size size, int least, int largest, cv::RNG& rng) {
    std::array<cv::Mat, 2> result{cv::Mat(size, CV_16SC1), cv::Mat(size, CV_16SC1)};
    for (cv::Mat& derivative : result) rng.fill(derivative, cv::RNG::UNIFORM, least, largest + 1);
    return result;
}

TEST(SquaredMagnitudes, VectorFormGivesTheNumbersOfThePlainOne) {
    cv::RNG rng(7);
    auto [dx, dy] = randomDerivatives({1003, 1}, -32768, 32767, rng);
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
    const cv::Rect whole({}, dx.size());
    const auto magnitude = [&](cv::Point p) -> std::int64_t {
        return whole.contains(p) ? std::int64_t{dx.at<short>(p)} * dx.at<short>(p) + std::int64_t{dy.at<short>(p)} * dy.at<short>(p) : 0;
    };
    cv::Mat edges = cv::Mat::zeros(dx.size(), CV_8UC1), candidate = edges.clone();
    std::deque<cv::Point> open;
    for (int k = 0; k < whole.area(); ++k) {
        const cv::Point p(k % dx.cols, k / dx.cols);
        const std::int64_t m = magnitude(p), gx = dx.at<short>(p), gy = dy.at<short>(p);
        const std::int64_t up = std::abs(gy) * 32768, flat = std::abs(gx) * 13573;
        const bool isFlat = up < flat, isSteep = (up > flat + std::abs(gx) * 65536);
        const cv::Point across = isFlat ? cv::Point(1, 0) : isSteep ? cv::Point(0, 1) : cv::Point((gx < 0) != (gy < 0) ? -1 : 1, 1);
        const std::int64_t before = magnitude(p - across), after = magnitude(p + across);
        candidate.at<uchar>(p) = m > low * low && m > before && (isFlat || isSteep ? m >= after : m > after);
        if (candidate.at<uchar>(p) && m > high * high) edges.at<uchar>(p) = 255, open.push_back(p);
    }
    for (; !open.empty(); open.pop_front()) {
        for (int k = 0; k < 9; ++k) {
            const cv::Point p = open.front() + cv::Point(k % 3 - 1, k / 3 - 1);
            if (whole.contains(p) && candidate.at<uchar>(p) && !edges.at<uchar>(p)) edges.at<uchar>(p) = 255, open.push_back(p);
        }
    }
    return edges;
}

TEST(SuppressAndLinkEdges, EqualsFloodingFromAllSeeds) {
    cv::RNG rng(11);
    const std::tuple<int, int, int> levels[] = {{0, 0, 300}, {1, 2, 3}, {150, 400, 300}, {20000, 30000, 32767}, {-5, 60000, 200}};
    for (const cv::Size size : {cv::Size(1, 1), {3, 3}, {1, 40}, {40, 1}, {16, 9}, {33, 17}, {257, 64}}) {
        for (const auto& [low, high, spread] : levels) {
            const auto [dx, dy] = randomDerivatives(size, -spread, spread, rng);
            cv::Mat edges;
            suppressAndLinkEdges(dx, dx, dy, low, high, edges);
            EXPECT_EQ(cv::norm(edges, edgesByFlooding(dx, dy, std::max(0, low), high), cv::NORM_INF), 0) << size << " low " << low;
        }
    }
}

TEST(CutIntoStrips, CoversEveryColumnOnce) {
    const std::tuple<int, unsigned, std::vector<int>> cases[] = {{100, 0, {100}}, {100, 1, {100}}, {10, 3, {3, 3, 4}},
                                                                 {2, 8, {1, 1}},  {1, 64, {1}},    {8, 8, std::vector<int>(8, 1)}};
    for (const auto& [columns, concurrency, expected] : cases) {
        std::vector<int> widths;
        int next = 0;
        for (const EdgeStrip& strip : cutIntoStrips(columns, concurrency)) {
            EXPECT_EQ(strip.firstColumn, next);
            widths.push_back(strip.width), next += strip.width;
        }
        EXPECT_EQ(widths, expected);
    }
}

TEST(SelectInnerContours, KeepsTheInnerSideOfLoops) {
    // Contour 0 is the outer side of a loop, 1 its inner side; what lies inside differs.
    const std::tuple<const char*, std::vector<int>, std::vector<cv::Vec4i>, std::vector<int>> cases[] = {
        {"a bare loop", {30, 28}, {{-1, -1, 1, -1}, {-1, -1, -1, 0}}, {1}},
        {"too short", {30, 9}, {{-1, -1, 1, -1}, {-1, -1, -1, 0}}, {}},
        {"exactly long enough", {30, 10}, {{-1, -1, 1, -1}, {-1, -1, -1, 0}}, {1}},
        {"a speck inside", {30, 28, 9}, {{-1, -1, 1, -1}, {-1, -1, 2, 0}, {-1, -1, -1, 1}}, {1}},
        {"a long one inside", {30, 28, 10}, {{-1, -1, 1, -1}, {-1, -1, 2, 0}, {-1, -1, -1, 1}}, {2}},
        {"a long one behind a speck", {30, 28, 2, 12}, {{-1, -1, 1, -1}, {-1, -1, 2, 0}, {3, -1, -1, 1}, {-1, 2, -1, 1}}, {3}},
        {"a long one inside a speck's child", {30, 28, 2, 12}, {{-1, -1, 1, -1}, {-1, -1, 2, 0}, {-1, -1, 3, 1}, {-1, -1, -1, 2}}, {1, 3}},
        {"a long one before the first child", {30, 28, 2, 12}, {{-1, -1, 1, -1}, {-1, -1, 2, 0}, {-1, 3, -1, 1}, {2, -1, -1, -1}}, {}}};
    for (const auto& [what, lengths, tree, kept] : cases) {
        std::vector<std::vector<cv::Point>> contours;
        for (const int length : lengths) contours.emplace_back(length);
        EXPECT_EQ(selectInnerContours(contours, tree, 10), kept) << what;
    }
}

TEST(RefineContours, FindsTheTopOfAParabolicRidge) {
    const auto ridge = [](double top, double curvature = -800) { return [=](double x, double) { return 16000 + curvature * std::pow(x - top, 2); }; };
    const struct {
        const char* what;
        std::function<double(double, double)> magnitude;  ///< at x and y
        cv::Point pixel;
        cv::Point2f moved;
        double direction;
    } cases[] = {{"right of the pixel", ridge(3.25), {3, 3}, {3.25f, 3}, CV_PI / 2},
                 {"left of the pixel", ridge(2.7), {3, 3}, {2.7f, 3}, CV_PI / 2},
                 {"just within half a pixel", ridge(3.495), {3, 3}, {3.495f, 3}, CV_PI / 2},
                 {"just beyond it", ridge(3.505), {3, 3}, {3, 3}, CV_PI / 2},
                 {"below, in a row ridge", [=](double x, double y) { return ridge(3.25)(y, x); }, {3, 3}, {3, 3.25f}, 0},
                 {"at the border, with the row doubled", ridge(3.25), {3, 0}, {3.25f, 0}, CV_PI / 2},
                 {"a valley stays on its pixel", ridge(3.25, 700), {3, 3}, {3, 3}, CV_PI / 2},
                 // Steepest along (1, 1); the mixed derivative counts with the other sign, which makes (-1, 1) of it.
                 {"askew",
                  [](double x, double y) { return 16000 + 600 * (x - 3) - 400 * ((x - 3) * (x - 3) + (y - 3) * (y - 3) + (x - 3) * (y - 3)); },
                  {3, 3},
                  {3.25f, 2.75f},
                  1.75 * CV_PI}};
    for (const auto& c : cases) {
        cv::Mat gradient[2];  // along (3, 4)
        for (const int k : {0, 1}) gradient[k] = imageOf<short>({7, 7}, [&](int x, int y) { return (k == 0 ? 0.6 : 0.8) * c.magnitude(x, y); });
        std::vector<SubpixelContour> contours;
        refineContours(gradient[0], gradient[1], {{c.pixel}}, contours);
        ASSERT_EQ(contours.size(), 1u);
        EXPECT_LT(cv::norm(contours[0].points[0] - c.moved), 1e-3) << c.what;
        EXPECT_NEAR(contours[0].direction[0], c.direction, 1e-6) << c.what;
        EXPECT_NEAR(contours[0].response[0], c.magnitude(c.pixel.x, c.pixel.y) / 128, 0.02) << c.what;  // the facet keeps a parabola's value
    }
}

}  // namespace kestrune::test::subpixel_contours
