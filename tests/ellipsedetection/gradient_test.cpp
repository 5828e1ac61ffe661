// SPDX-License-Identifier: Apache-2.0
#include "ellipsedetection/gradient.h"

#include <gtest/gtest.h>

#include <cstring>
#include <numeric>
#include <opencv2/imgproc.hpp>
#include <opencv2/ximgproc.hpp>

#include "canny/fast_gaussian.h"
#include "ellipsedetection/gradient_plain.h"
#include "ellipsedetection/window_edges.h"

namespace kestrune {
namespace {

/// A window of a larger image, so that rows are not contiguous, or an image of its own.
cv::Mat place(cv::Size size, int type, bool isWindow, double fill = 0) {
    if (!isWindow) return {size, type, cv::Scalar(fill)};
    return cv::Mat(size.height + 5, size.width + 7, type, cv::Scalar(fill))(cv::Rect({3, 2}, size));
}

struct Edges {
    cv::Mat grad, dx, dy, mask;
    float min = 0, max = 0;
    std::vector<int> strong, weak;
    Edges(cv::Size size, bool isWindow)
        : grad(place(size, CV_32FC1, isWindow, -7)),
          dx(place(size, CV_32FC1, isWindow, -7)),
          dy(place(size, CV_32FC1, isWindow, -7)),
          mask(place(size, CV_8UC1, isWindow)) {}
};

bool sameBits(const cv::Mat& a, const cv::Mat& b) {
    const cv::Mat x = a.clone(), y = b.clone();
    return x.type() == y.type() && x.size() == y.size() && std::memcmp(x.data, y.data, x.total() * x.elemSize()) == 0;
}

TEST(Gradient, VectorsAndSinglePixelsGiveTheSameBitsOnWindowsOfEveryWidth) {
    cv::RNG rng(7);
    for (int width = 1; width <= 40; ++width) {
        for (const int height : {1, 3, 4, 5, 6, 7, 13}) {
            for (const bool isWindow : {false, true}) {
                cv::Mat blur = place({width, height}, CV_16UC1, isWindow);
                // From few grey levels, which meet every equality, to all of them.
                rng.fill(blur, cv::RNG::UNIFORM, 0, width % 3 == 0 ? 4 : 65536);
                Edges fast(blur.size(), isWindow), plain(blur.size(), isWindow);
                calc_gradient(blur, fast.grad, fast.dx, fast.dy, fast.min, fast.max);
                plain::calc_gradient(blur, plain.grad, plain.dx, plain.dy, plain.min, plain.max);
                ASSERT_TRUE(sameBits(fast.grad, plain.grad) && sameBits(fast.dx, plain.dx) && sameBits(fast.dy, plain.dy)) << blur.size();
                ASSERT_TRUE(fast.min == plain.min && fast.max == plain.max) << blur.size();

                const float scale = 256 / (plain.max - plain.min + 1e-6f);
                const auto counts = plain::histogram(plain.grad, plain.min, scale);
                const int total = std::max(0, width - 2) * std::max(0, height - 2);
                ASSERT_EQ(std::accumulate(counts.begin(), counts.end(), 0), total);
                for (const float percentile : {0.0f, 0.3f, 0.75f, 0.99f}) {
                    if (total == 0) break;
                    int sum = 0, bin = -1;
                    while (static_cast<float>(sum) / static_cast<float>(total) <= percentile) sum += counts[static_cast<std::size_t>(++bin)];
                    ASSERT_EQ(calc_stable_edge_threshold(fast.grad, fast.min, fast.max, percentile), static_cast<float>(bin) / scale + plain.min);
                }

                const float low = width < 3 || height < 3 ? 1.0f : plain.grad.at<float>(height / 2, width - 3 > 0 ? width - 3 : 1);
                for (const float factor : {0.0f, 0.9f, 1.0f, 1.1f}) {
                    Edges& f = fast;
                    find_edge_mask_nms(f.grad, f.dx, f.dy, f.mask, f.strong, f.weak, low, 2 * low, factor);
                    plain.strong.clear(), plain.weak.clear();
                    plain::find_edge_mask_nms(plain.grad, plain.dx, plain.dy, plain.mask, plain.strong, plain.weak, low, 2 * low, factor);
                    ASSERT_TRUE(sameBits(fast.mask, plain.mask) && fast.strong == plain.strong && fast.weak == plain.weak) << blur.size() << factor;
                    if (height < 5) {
                        ASSERT_TRUE(fast.strong.empty() && fast.weak.empty() && cv::countNonZero(fast.mask) == 0);
                    }
                }
            }
        }
    }
}

TEST(Gradient, LeftoverColumnsHalveWholeNumbersTowardsZeroAndCutOffTheirBin) {
    // One group of columns 1 to 8, then 9 and 10 alone. Steps of -3 along x, 0 along y.
    cv::Mat blur(5, 12, CV_16UC1);
    for (int x = 0; x < 12; ++x) blur.col(x) = 60 - 3 * (x / 2);
    Edges e(blur.size(), false);
    calc_gradient(blur, e.grad, e.dx, e.dy, e.min, e.max);
    EXPECT_EQ(e.dx.at<float>(2, 8), -1.5f);
    EXPECT_EQ(e.dx.at<float>(2, 9), -1.0f);
    EXPECT_EQ(e.grad.at<float>(2, 10), 1.0f);
    EXPECT_EQ(e.min, 1.0f);
    EXPECT_EQ(e.max, 1.5f);
    EXPECT_EQ(e.grad.at<float>(0, 5), -7.0f) << "the outer ring is not written";
    EXPECT_EQ(e.grad.at<float>(2, 11), -7.0f);

    // The same magnitude, 0.7 of a bin from the least: bin 1 where it is rounded, bin 0 where it is cut off.
    cv::Mat grad(4, 12, CV_32FC1, cv::Scalar(0.7));
    const float scale = 256 / (256 + 1e-6f);
    EXPECT_EQ(calc_stable_edge_threshold(grad, 0, 256, 0.1f), 0.0f) << "4 of 20 in bin 0";
    EXPECT_EQ(calc_stable_edge_threshold(grad, 0, 256, 0.2f), 1 / scale) << "a share equal to the percentile is not above it";
    // From 1 on no bin qualifies: the bits of the number of rows, in effect zero.
    for (const float percentile : {1.0f, 2.0f}) {
        const float t = calc_stable_edge_threshold(grad, 0, 256, percentile);
        std::int32_t bits = 0;
        std::memcpy(&bits, &t, sizeof bits);
        EXPECT_EQ(bits, 4);
    }
    EXPECT_EQ(calc_stable_edge_threshold(grad, 0.7f, 0.7f, 0.5f), 0.7f) << "flat";
}

TEST(Gradient, TheMaximumIsJudgedWithTheWeightsExchangedAndStrictly) {
    const struct {
        const char* what;
        int x;           // 2 to 9 are grouped, 10 is alone
        float dx, dy;    // gradient of the judged pixel, whose magnitude is 10
        cv::Point high;  // the neighbour that is set
        float value, nmsFactor, low;
        bool isEdge;
    } cases[] = {
        {"nothing around", 5, 10, 0, {1, 0}, 0, 1, 5, true},
        {"dy 0: the axial neighbour has no weight", 5, 10, 0, {1, 0}, 99, 1, 5, true},
        {"dy 0: the diagonal one has all", 5, 10, 0, {1, 1}, 10, 1, 5, false},
        {"the same on the other side", 5, 10, 0, {-1, -1}, 10, 1, 5, false},
        {"signs differ: the other diagonal", 5, -10, 0, {1, -1}, 10, 1, 5, false},
        {"signs differ: not this one", 5, -10, 0, {1, 1}, 99, 1, 5, true},
        {"equal components: the axial one only, along y", 5, 7, 7, {0, 1}, 10, 1, 5, false},
        {"equal components: not along x", 5, 7, 7, {1, 0}, 99, 1, 5, true},
        {"a quarter goes to the axial one", 5, 8, 2, {-1, 0}, 39, 1, 5, true},
        {"and with 40 no longer strictly above", 5, 8, 2, {-1, 0}, 40, 1, 5, false},
        {"along y with signs that differ", 5, 2, -8, {-1, 1}, 13, 1, 5, true},
        {"three quarters to the diagonal", 5, 2, -8, {-1, 1}, 14, 1, 5, false},
        {"a softer factor", 5, 2, -8, {-1, 1}, 14, 0.9f, 5, true},
        {"equal to low in a group", 9, 10, 0, {1, 0}, 0, 1, 10, false},
        {"equal to low in a column of its own", 10, 10, 0, {1, 0}, 0, 1, 10, true},
        {"no direction", 5, 0.0652799978852272f, 0, {1, 0}, 0, 1, 5, false},
        {"just enough of one", 10, 0, -0.06528001f, {1, 0}, 0, 1, 5, true},
    };
    for (const auto& c : cases) {
        for (const float high : {9.0f, 10.0f}) {
            Edges e({13, 5}, false);
            e.grad = 0.0f;
            const cv::Point at(c.x, 2);
            e.grad.at<float>(at) = 10;
            if (c.value > 0) e.grad.at<float>(at + c.high) = c.value;
            e.dx.at<float>(at) = c.dx;
            e.dy.at<float>(at) = c.dy;
            find_edge_mask_nms(e.grad, e.dx, e.dy, e.mask, e.strong, e.weak, c.low, high, c.nmsFactor);
            const int index = at.y * 13 + at.x;
            const auto has = [index](const std::vector<int>& list) { return std::count(list.begin(), list.end(), index) == 1; };
            EXPECT_EQ(e.mask.at<uchar>(at), !c.isEdge ? 0 : high < 10 ? 255 : 127) << c.what;
            EXPECT_EQ(has(e.strong), c.isEdge && high < 10) << c.what;
            EXPECT_EQ(has(e.weak), c.isEdge && high >= 10) << c.what;
        }
    }
}

TEST(Gradient, BoxesHaveTheWidthsOfTheSigmaAndSeeNothingAroundAWindow) {
    const struct {
        float sigma;
        int widths[3];
    } cases[] = {{0, {1, 1, 1}},    {0.5f, {1, 1, 1}}, {0.9f, {1, 1, 3}}, {1.2f, {1, 3, 3}}, {-1.2f, {1, 3, 3}},
                 {1.3f, {3, 3, 3}}, {1.5f, {3, 3, 3}}, {2, {3, 3, 5}},    {5, {9, 9, 11}}};
    cv::RNG rng(5);
    for (const int type : {CV_8UC1, CV_16UC1}) {
        cv::Mat large(60, 70, type);
        rng.fill(large, cv::RNG::UNIFORM, 0, type == CV_8UC1 ? 256 : 65536);
        const cv::Rect window(9, 11, 31, 27);
        for (const auto& c : cases) {
            cv::Mat expected;
            large(window).clone().convertTo(expected, CV_16U, type == CV_8UC1 ? 256 : 1);
            for (const int w : c.widths) cv::boxFilter(expected.clone(), expected, CV_16U, {w, w}, {-1, -1}, true, cv::BORDER_REPLICATE);
            cv::Mat target = place(window.size(), CV_16UC1, true, 31), fresh;
            fastGaussianApprox(large(window), target, c.sigma);
            fastGaussianApprox(large(window), fresh, c.sigma);
            EXPECT_TRUE(sameBits(target, expected)) << c.sigma;
            EXPECT_TRUE(sameBits(fresh, expected)) << c.sigma;
        }
    }
}

TEST(Gradient, WrongTypesRaiseTheAssertionOfTheRoutine) {
    const cv::Mat bytes(9, 9, CV_8UC1, cv::Scalar(1)), floats(9, 9, CV_32FC1, cv::Scalar(1)), narrow(9, 8, CV_32FC1);
    cv::Mat a, b, c, mask;
    float min = 0, max = 0;
    std::vector<int> strong, weak;
    const struct {
        const char *condition, *function, *file;
        int line;
        std::function<void()> call;
    } cases[] = {
        {"src.type() == CV_8UC1 || src.type() == CV_16UC1", "kestrune::fastGaussianApprox", "plugins/MarkerExtractor/canny.cpp", 397,
         [&] { fastGaussianApprox(floats, a, 1); }},
        {"src.type() == CV_8UC1 || src.type() == CV_16UC1", "kestrune::fastGaussianApprox", "plugins/MarkerExtractor/canny.cpp", 397,
         [&] { fastGaussianApprox(cv::Mat(9, 9, CV_8UC2), a, 1); }},
        {"blur16U.type() == CV_16UC1", "kestrune::calc_gradient", "plugins/MarkerExtractor/ellipsedetection.cpp", 562,
         [&] { calc_gradient(bytes, a, b, c, min, max); }},
        {"img_grad.type() == CV_32FC1", "kestrune::calc_stable_edge_threshold", "plugins/MarkerExtractor/ellipsedetection.cpp", 640,
         [&] { calc_stable_edge_threshold(bytes, 0, 1, 0.5f); }},
        {"img_grad.type() == CV_32FC1 && img_dx.type() == CV_32FC1 && img_dy.type() == CV_32FC1 && img_grad.size() == img_dx.size() && "
         "img_dx.size() == img_dy.size()",
         "kestrune::find_edge_mask_nms", "plugins/MarkerExtractor/ellipsedetection.cpp", 755,
         [&] { find_edge_mask_nms(floats, floats, narrow, mask, strong, weak, 0, 1, 1); }},
    };
    for (const auto& k : cases) {
        try {
            k.call();
            ADD_FAILURE() << k.function;
        } catch (const cv::Exception& e) {
            EXPECT_EQ(e.code, -215);
            EXPECT_EQ(e.err, k.condition);
            EXPECT_EQ(e.func, k.function);
            EXPECT_EQ(e.file, k.file);
            EXPECT_EQ(e.line, k.line);
        }
        EXPECT_TRUE(a.empty() && b.empty() && c.empty() && mask.empty() && strong.capacity() == 0) << "untouched";
    }
}

TEST(Gradient, EdgesAreThinnedAsIfTheWholeWindowWere) {
    cv::RNG rng(6);
    for (int round = 0; round < 60; ++round) {
        cv::Mat image(11 + 5 * round % 60, 9 + 7 * round % 80, CV_8UC1, cv::Scalar(70));
        for (int k = 0; k < 4; ++k) {
            const cv::Point at(rng.uniform(0, image.cols), rng.uniform(0, image.rows));
            cv::circle(image, at, rng.uniform(2, 25), rng.uniform(0, 256), rng.uniform(-1, 5));
        }
        Edges e(image.size(), true);
        EdgeWindow window = {place(image.size(), CV_16UC1, true), e.grad, e.dx, e.dy, place(image.size(), CV_8UC1, true, 127)};
        WindowScratch scratch;
        const float percentile = rng.uniform(0.5f, 1.0f);
        const cv::Rect box = thinEdges(image, window, 1, percentile, 0.95f, scratch);
        // The same by labels: strong and weak pixels in one component with a strong one, thinned as a whole.
        cv::Mat blur, marks = cv::Mat::zeros(image.size(), CV_8UC1), labels, expected;
        Edges w(image.size(), false);
        std::vector<int> strong, weak;
        fastGaussianApprox(image, blur, 1);
        calc_gradient(blur, w.grad, w.dx, w.dy, w.min, w.max);
        const float t = calc_stable_edge_threshold(w.grad, w.min, w.max, percentile);
        find_edge_mask_nms(w.grad, w.dx, w.dy, marks, strong, weak, 0.5f * t, t, 0.95f);
        std::vector<uchar> linked(static_cast<std::size_t>(cv::connectedComponents(marks, labels, 8)), 0);
        for (const int i : strong) linked[static_cast<std::size_t>(labels.at<int>(i / image.cols, i % image.cols))] = 255;
        for (int i = 0; i < image.rows * image.cols; ++i) {
            marks.at<uchar>(i / image.cols, i % image.cols) = linked[static_cast<std::size_t>(labels.at<int>(i / image.cols, i % image.cols))];
        }
        cv::ximgproc::thinning(marks, expected, cv::ximgproc::THINNING_ZHANGSUEN);
        ASSERT_TRUE(sameBits(window.mask, expected)) << round;
        const int inside = box.empty() ? 0 : cv::countNonZero(expected(box));
        ASSERT_EQ(inside, cv::countNonZero(expected)) << round;
    }
}

TEST(Gradient, WeakEdgesStayWhereTheyHangTogetherWithAStrongOne) {
    // A vertical step whose height falls from top to bottom, and a low one apart from it.
    cv::Mat image(60, 80, CV_8UC1, cv::Scalar(60));
    for (int y = 0; y < 60; ++y) image(cv::Rect(40, y, 40, 1)) = 160 - y;
    image(cv::Rect(10, 20, 1, 20)) = 75;
    Edges e(image.size(), true);
    EdgeWindow window = {place(image.size(), CV_16UC1, true), e.grad, e.dx, e.dy, place(image.size(), CV_8UC1, true, 127)};
    WindowScratch scratch;
    ASSERT_FALSE(thinEdges(image, window, 1, 0.96f, 1, scratch).empty());
    for (int y = 4; y < 56; ++y) EXPECT_GE(cv::countNonZero(window.mask(cv::Rect(38, y, 4, 1))), 1) << y;
    EXPECT_EQ(cv::countNonZero(window.mask(cv::Rect(0, 0, 36, 60))), 0) << "nothing strong near it";
    EXPECT_EQ(cv::countNonZero((window.mask != 0) & (window.mask != 255)), 0);
    EXPECT_TRUE(thinEdges(cv::Mat(60, 80, CV_8UC1, cv::Scalar(9)), window, 1, 0.9f, 1, scratch).empty());
    EXPECT_EQ(cv::countNonZero(window.mask), 0);
}

}  // namespace
}  // namespace kestrune
