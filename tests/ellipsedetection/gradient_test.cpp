// SPDX-License-Identifier: Apache-2.0
#include "ellipsedetection/gradient.h"

#include <gtest/gtest.h>

#include <bit>
#include <cstring>
#include <opencv2/imgproc.hpp>
#include <opencv2/ximgproc.hpp>

#include "canny/fast_gaussian.h"
#include "ellipsedetection/gradient_plain.h"
#include "ellipsedetection/private_window.h"
#include "ellipsedetection/window_edges.h"

namespace kestrune::test::gradient {

/// A window of a larger image, so that rows are not contiguous, or an image of its own.
cv::Mat place(cv::Size size, int type, bool isWindow, double fill = 0) {
    if (!isWindow) return {size, type, cv::Scalar(fill)};
    return cv::Mat(size.height + 5, size.width + 7, type, cv::Scalar(fill))(cv::Rect({3, 2}, size));
}

struct Edges {
    cv::Mat grad, dx, dy, mask;
    float min = 0, max = 0;
    std::vector<int> strong, weak;

    Edges(cv::Size size, bool isWindow) : mask(place(size, CV_8UC1, isWindow)) {
        for (cv::Mat* image : {&grad, &dx, &dy}) *image = place(size, CV_32FC1, isWindow, -7);
    }
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
    EXPECT_EQ(cv::Vec3f(e.dx.at<float>(2, 8), e.dx.at<float>(2, 9), e.grad.at<float>(2, 10)), cv::Vec3f(-1.5f, -1, 1));
    EXPECT_EQ(std::pair(e.min, e.max), std::pair(1.0f, 1.5f));
    EXPECT_TRUE(e.grad.at<float>(0, 5) == -7 && e.grad.at<float>(2, 11) == -7) << "the outer ring is not written";

    // The same magnitude, 0.7 of a bin from the least: bin 1 where it is rounded, bin 0 where it is cut off.
    cv::Mat grad(4, 12, CV_32FC1, cv::Scalar(0.7));
    const float scale = 256 / (256 + 1e-6f);
    EXPECT_EQ(calc_stable_edge_threshold(grad, 0, 256, 0.1f), 0.0f) << "4 of 20 in bin 0";
    EXPECT_EQ(calc_stable_edge_threshold(grad, 0, 256, 0.2f), 1 / scale) << "a share equal to the percentile is not above it";
    // From 1 on no bin qualifies: the bits of the number of rows, in effect zero.
    for (const float percentile : {1.0f, 2.0f}) EXPECT_EQ(std::bit_cast<std::int32_t>(calc_stable_edge_threshold(grad, 0, 256, percentile)), 4);
    EXPECT_EQ(calc_stable_edge_threshold(grad, 0.7f, 0.7f, 0.5f), 0.7f) << "flat";
}

TEST(Gradient, TheMaximumIsJudgedWithTheWeightsExchangedAndStrictly) {
    // Column of the judged pixel, of which 2 to 9 are grouped and 10 is alone; its gradient, whose magnitude is 10; the
    // neighbour that is set, and its value; factor, low threshold.
    const std::tuple<const char*, int, float, float, cv::Point, float, float, float, bool> cases[] = {
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
        {"just enough of one", 10, 0, -0.06528001f, {1, 0}, 0, 1, 5, true}};
    for (const auto& [what, x, dx, dy, neighbour, value, nmsFactor, low, isEdge] : cases) {
        for (const float high : {9.0f, 10.0f}) {
            Edges e({13, 5}, false);
            const cv::Point at(x, 2);
            e.grad = 0.0f;
            e.grad.at<float>(at) = 10;
            if (value > 0) e.grad.at<float>(at + neighbour) = value;
            e.dx.at<float>(at) = dx;
            e.dy.at<float>(at) = dy;
            find_edge_mask_nms(e.grad, e.dx, e.dy, e.mask, e.strong, e.weak, low, high, nmsFactor);
            const auto listed = [index = 2 * 13 + x](const std::vector<int>& list) { return std::count(list.begin(), list.end(), index) == 1; };
            EXPECT_EQ(e.mask.at<uchar>(at), !isEdge ? 0 : high < 10 ? 255 : 127) << what;
            EXPECT_TRUE(listed(e.strong) == (isEdge && high < 10) && listed(e.weak) == (isEdge && high >= 10)) << what;
        }
    }
}

TEST(Gradient, BoxesHaveTheWidthsOfTheSigmaAndSeeNothingAroundAWindow) {
    const std::pair<float, std::array<int, 3>> cases[] = {{0, {1, 1, 1}},    {0.5f, {1, 1, 1}},  {0.9f, {1, 1, 3}},
                                                          {1.2f, {1, 3, 3}}, {-1.2f, {1, 3, 3}}, {1.3f, {3, 3, 3}},
                                                          {1.5f, {3, 3, 3}}, {2, {3, 3, 5}},     {5, {9, 9, 11}}};
    cv::RNG rng(5);
    for (const int type : {CV_8UC1, CV_16UC1}) {
        cv::Mat large(60, 70, type);
        rng.fill(large, cv::RNG::UNIFORM, 0, type == CV_8UC1 ? 256 : 65536);
        const cv::Mat window = large(cv::Rect(9, 11, 31, 27));
        for (const auto& [sigma, widths] : cases) {
            cv::Mat expected;
            window.clone().convertTo(expected, CV_16U, type == CV_8UC1 ? 256 : 1);
            for (const int w : widths) cv::boxFilter(expected.clone(), expected, CV_16U, {w, w}, {-1, -1}, true, cv::BORDER_REPLICATE);
            for (cv::Mat target : {place(window.size(), CV_16UC1, true, 31), cv::Mat()}) {
                fastGaussianApprox(window, target, sigma);
                EXPECT_TRUE(sameBits(target, expected)) << sigma;
            }
        }
    }
}

TEST(Gradient, AWindowIsSmoothedAsAPartOfItsImage) {
    cv::RNG rng(8);
    for (const int type : {CV_8UC1, CV_16UC1}) {
        cv::Mat image(97, 203, type), whole, part;
        BoxScratch scratch;
        rng.fill(image, cv::RNG::UNIFORM, 0, type == CV_8UC1 ? 256 : 65536);
        for (const float sigma : {0.0f, 1.0f, 1.3f, 2.0f, 3.4f, 5.0f, 9.0f}) {
            fastGaussianApprox(image, whole, sigma);
            for (int round = 0; round < 60; ++round) {
                const cv::Point from(rng.uniform(0, 203), rng.uniform(0, 97)), to(rng.uniform(0, 203), rng.uniform(0, 97));
                const cv::Rect window(from, to + cv::Point(from.x == to.x, from.y == to.y));
                std::vector<std::uint16_t> storage(static_cast<std::size_t>(rng.uniform(0, 203 * 97)), 7777);
                fastGaussianOfWindow(image, window, part, sigma, storage);
                ASSERT_TRUE(sameBits(part, whole(window))) << sigma << ' ' << window;
                ASSERT_TRUE(type == CV_16UC1 || sameBits(smoothedWindow(image, window, sigma, scratch), part)) << sigma << ' ' << window;
            }
        }
    }
}

TEST(Gradient, WrongTypesRaiseTheAssertionOfTheRoutine) {
    const cv::Mat bytes(9, 9, CV_8UC1, cv::Scalar(1)), floats(9, 9, CV_32FC1, cv::Scalar(1)), narrow(9, 8, CV_32FC1), pairs(9, 9, CV_8UC2);
    cv::Mat a, b, c, mask;
    float min = 0, max = 0;
    std::vector<int> strong, weak;
    const std::pair<const char*, std::function<void()>> cases[] = {
        {"canny.cpp:397 kestrune::fastGaussianApprox src.type() == CV_8UC1 || src.type() == CV_16UC1", [&] { fastGaussianApprox(pairs, a, 1); }},
        {"ellipsedetection.cpp:562 kestrune::calc_gradient blur16U.type() == CV_16UC1", [&] { calc_gradient(bytes, a, b, c, min, max); }},
        {"ellipsedetection.cpp:640 kestrune::calc_stable_edge_threshold img_grad.type() == CV_32FC1",
         [&] { calc_stable_edge_threshold(bytes, 0, 1, 0.5f); }},
        {"ellipsedetection.cpp:755 kestrune::find_edge_mask_nms img_grad.type() == CV_32FC1 && img_dx.type() == CV_32FC1 && img_dy.type() == "
         "CV_32FC1 && img_grad.size() == img_dx.size() && img_dx.size() == img_dy.size()",
         [&] { find_edge_mask_nms(floats, floats, narrow, mask, strong, weak, 0, 1, 1); }}};
    for (const auto& [raised, call] : cases) {
        try {
            call();
            ADD_FAILURE() << raised;
        } catch (const cv::Exception& e) {
            EXPECT_EQ(e.code, cv::Error::StsAssert);
            EXPECT_EQ(e.file + ':' + std::to_string(e.line) + ' ' + e.func + ' ' + e.err, std::string("plugins/MarkerExtractor/") + raised);
        }
    }
    EXPECT_TRUE(mask.empty()) << "untouched";
}

TEST(Gradient, ListsOfPixelsAreThinnedLikeMasks) {
    cv::RNG rng(9);
    ThinningLists lists;
    for (int round = 0; round < 400; ++round) {
        cv::Mat mask = cv::Mat::zeros(rng.uniform(3, 50), rng.uniform(3, 70), CV_8UC1), inner = mask(cv::Rect(1, 1, mask.cols - 2, mask.rows - 2)),
                expected;
        if (round % 2 == 0) rng.fill(inner, cv::RNG::UNIFORM, 0, 256);
        inner = inner > round % 256;
        for (int k = round % 2 == 0 ? 0 : rng.uniform(1, 6); k > 0; --k)
            cv::circle(inner, {rng.uniform(0, 60), rng.uniform(0, 40)}, rng.uniform(1, 30), 255, rng.uniform(-1, 6));
        std::vector<int> edges;
        for (int i = 0; i < mask.rows * mask.cols; ++i)
            if (mask.data[i] != 0) edges.push_back(i);
        cv::ximgproc::thinning(mask, expected, cv::ximgproc::THINNING_ZHANGSUEN);
        if (round % 3 == 0) std::ranges::reverse(edges);
        thinPixels(mask, edges, lists);
        ASSERT_TRUE(sameBits(mask, expected)) << round;
    }
}

TEST(Gradient, EdgesAreThinnedAsIfTheWholeWindowWere) {
    cv::RNG rng(6);
    PrivateWindow own;
    for (int round = 0; round < 60; ++round) {
        cv::Mat image(11 + 5 * round % 60, 9 + 7 * round % 80, CV_8UC1, cv::Scalar(70));
        for (int k = 0; k < std::min(round, 4); ++k) {  // first a flat image, without any edge
            const cv::Point at(rng.uniform(0, image.cols), rng.uniform(0, image.rows));
            cv::circle(image, at, rng.uniform(2, 25), rng.uniform(0, 256), rng.uniform(-1, 5));
        }
        Edges e(image.size(), true);
        EdgeWindow window = {place(image.size(), CV_16UC1, true), e.grad, e.dx, e.dy, place(image.size(), CV_8UC1, true, 127)};
        std::vector<std::uint16_t> smoothing;
        WindowScratch scratch(smoothing);
        const float percentile = rng.uniform(0.5f, 1.0f);
        const cv::Rect box = thinEdges(image, cv::Rect({}, image.size()), window, 1, percentile, 0.95f, scratch);
        // The same by labels: strong and weak pixels in one component with a strong one, thinned as a whole.
        cv::Mat blur, marks = cv::Mat::zeros(image.size(), CV_8UC1), labels, expected;
        Edges w(image.size(), false);
        fastGaussianApprox(image, blur, 1);
        calc_gradient(blur, w.grad, w.dx, w.dy, w.min, w.max);
        const float t = calc_stable_edge_threshold(w.grad, w.min, w.max, percentile);
        find_edge_mask_nms(w.grad, w.dx, w.dy, marks, w.strong, w.weak, 0.5f * t, t, 0.95f);
        std::vector<uchar> linked(static_cast<std::size_t>(cv::connectedComponents(marks, labels, 8)), 0);
        const auto stateOf = [&](int index) -> uchar& {
            return linked[static_cast<std::size_t>(labels.at<int>(index / image.cols, index % image.cols))];
        };
        for (const int i : w.strong) stateOf(i) = 255;
        for (int i = 0; i < image.rows * image.cols; ++i) marks.at<uchar>(i / image.cols, i % image.cols) = stateOf(i);
        cv::ximgproc::thinning(marks, expected, cv::ximgproc::THINNING_ZHANGSUEN);
        ASSERT_TRUE(sameBits(window.mask, expected)) << round;
        ASSERT_EQ(own.findEdges(image, cv::Rect({}, image.size()), {1, 3, 0, 1, percentile, 0.95f, 0, 0, 0}), box) << round;
        ASSERT_TRUE(sameBits(own.images().mask, expected) && sameBits(own.images().blur16U, blur)) << round;
        if (!box.empty()) expected(box) = uchar{0};
        ASSERT_EQ(cv::countNonZero(expected), 0) << round << ": the box holds all";
    }
}

}  // namespace kestrune::test::gradient
