// SPDX-License-Identifier: Apache-2.0
#include "MarkerExtractor/extraction/radial_fast.h"

#include "ellipsedetection/vector_lanes.h"
#include "support/configs.h"
#include "support/teams.h"

namespace kestrune::test::radial_fast {

TEST(SmoothWindow, ShowsWhatOpenCvSmooths) {
    cv::RNG random(7);
    SmoothingScratch scratch;
    for (int k = 0; k < 300; ++k) {
        cv::Mat image(random.uniform(1, 70), random.uniform(1, 70), CV_8UC1), whole;
        random.fill(image, cv::RNG::UNIFORM, k % 2 * 254, 256);
        const int aperture = 3 + 2 * random.uniform(0, k % 3 * 15 + 1);
        const double sigma = k % 4 * random.uniform(0.0, 4.0);
        cv::GaussianBlur(image, whole, {aperture, aperture}, sigma, sigma, cv::BORDER_REFLECT_101);
        const int x = random.uniform(0, image.cols), y = random.uniform(0, image.rows);
        const cv::Rect window(x, y, random.uniform(1, image.cols - x + 1), random.uniform(1, image.rows - y + 1));
        const SmoothingPlan plan(aperture, sigma);
        ASSERT_EQ(plan.isExact, KESTRUNE_EXACT_LANES != 0);
        cv::Mat smooth(window.height, smoothedStride(window.width), CV_8UC1);
        if (plan.isExact) smoothWindow(image, window, plan, scratch, smooth.ptr(), smooth.cols);
        ASSERT_EQ(cv::norm(smooth.colRange(0, window.width), whole(window), cv::NORM_INF), 0) << k << ' ' << aperture << ' ' << sigma;
    }
}

TEST(SearchRadialEdges, ReadsAPartOfAnImageOfAnySize) {
    const cv::Mat disc = discImage({80, 80}, {40, 40}, 12);
    const std::vector<cv::Point2f> rays = {{1, 0}, {0, 1}, {-1, 0}, {0, -1}, {0.6f, 0.8f}, {-0.6f, 0.8f}};
    std::vector<cv::Point2f> whole, part;
    searchRadialEdges(disc, {40, 40}, 4, 20, whole, rays, 12, 0.6f);
    ASSERT_EQ(whole.size(), rays.size());
    RayScratch scratch;
    for (const int rows : {80, 1 << 30}) {  // places in the second need more than 32 bits
        const GreyView view(disc.ptr(10) + 11, 80, {11, 10}, {80, rows});
        searchRadialEdges(view, {40, 40}, {4, 20}, part, rays, 12, 0.6f, scratch);
        EXPECT_EQ(part, whole) << rows;
    }
}

TEST(DetectRadialContoursFast, FindsWhatThePlainRoadFinds) {
    cv::RNG random(9);
    const SharedLoops shared;
    std::vector<cv::Point2f> directions;
    for (int i = 0; i < 40; ++i) directions.emplace_back(cv::Point2d(std::cos(i * CV_PI / 20), std::sin(i * CV_PI / 20)));
    RadialScratch scratch;
    std::size_t found = 0;
    int crowded = 0;
    for (int k = 0; k < 100; ++k) {
        // Discs of all sizes, some cut by the border; in every third image so many that their windows hold more than it.
        cv::Mat grey(random.uniform(1, 260), random.uniform(1, 260), CV_8UC1, cv::Scalar(40));
        for (int i = 0; i < k % 3 * 40; ++i) {
            cv::circle(grey, {random.uniform(0, grey.cols), random.uniform(0, grey.rows)}, random.uniform(2, k % 3 == 2 ? 9 : 30),
                       random.uniform(60, 256), -1, cv::LINE_AA);
        }
        if (k % 5 == 0) random.fill(grey, cv::RNG::UNIFORM, 0, 256);
        const int scale = std::min({1 + k % 4, grey.cols, grey.rows});
        cv::Mat working = grey, images[4];
        if (scale > 1) cv::resize(grey, working, grey.size() / scale);
        const RadialSettings settings = {0.4 * (k % 5), 5 + k % 2 * 10, k % 9, k % 7 - 8, scale, k % 8 > 3, 0.1f * static_cast<float>(k % 9),
                                         k % 6 * 8};
        std::vector<SubpixelContour> plain, fast(2);
        detectRadialContours({working, grey, images[0], images[1], images[2], images[3]}, settings, {directions, directions}, plain, nullptr);
        omp_set_num_threads(1 + k % 3);
        detectRadialContoursFast(working, grey, settings, {directions, directions}, scratch, fast);
        ASSERT_EQ(fast.size(), plain.size()) << k;
        for (std::size_t i = 0; i < plain.size(); ++i) ASSERT_EQ(fast[i].points, plain[i].points) << k;
        for (const SubpixelContour& contour : plain) found += !contour.points.empty();
        crowded += scratch.whole.rows == grey.rows;
    }
    EXPECT_GT(found, 150u);
    EXPECT_GT(crowded, 2);
}

}  // namespace kestrune::test::radial_fast
