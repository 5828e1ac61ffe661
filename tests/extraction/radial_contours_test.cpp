// SPDX-License-Identifier: Apache-2.0
#include "MarkerExtractor/extraction/radial_contours.h"

#include "support/configs.h"

namespace kestrune::test::radial_contours {

std::vector<cv::Point2f> directionTable(int n) {
    std::vector<cv::Point2f> table;
    for (int i = 0; i < n; ++i) table.push_back(cv::Point2d(std::cos(2 * CV_PI * i / n), std::sin(2 * CV_PI * i / n)));
    return table;
}

TEST(RadiusPasses, MatchTablesWorkedOutByHand) {
    using Radii = std::vector<float>;
    const auto padded = [](Radii radii, std::size_t n) {
        radii.resize(n, -1);
        return radii;
    };
    // Given, after the median, after the smoothing. Median: upper middle of the positive radii within two places.
    // Smoothing: mean of two on either side.
    const std::tuple<const char*, Radii, Radii, Radii> cases[] = {
        // A spike of 30 shifts the mean of four neighbours by 7.5 and takes those with it.
        {"a spike", {10, 10, 10, 40, 10, 10, 10, 10}, Radii(8, 10), {10, -1, -1, -1, -1, -1, 10, 10}},
        {"a gap is closed", {10, 10, 10, -1, 10, 10, 10, 10}, Radii(8, 10), {10, 10, 10, -1, 10, 10, 10, 10}},
        {"two are no median", padded({8, 9}, 10), Radii(10, -1), padded({9, 8}, 10)},
        {"three are, of four the upper one", padded({8, 9, 10, 11}, 10), padded({9, 10, 10, 10}, 10), padded({9.5f, 29 / 3.f, 28 / 3.f, 9.5f}, 10)},
        {"a lone one is lost", padded({-1, 9}, 14), Radii(14, -1), Radii(14, -1)},
        {"exactly 3 off stays", {13, 10, 10, 10, 10, 10, 10, 10}, Radii(8, 10), {10, 10.75f, 10.75f, 10, 10, 10, 10.75f, 10.75f}},
        // Eight places, the way around, are too many; so are six for the neighbours that a radius is judged by.
        {"at most six places away", padded({20, -1, -1, -1, -1, -1, 25}, 14), Radii(14, -1), padded({25, -1, -1, -1, -1, -1, 20}, 14)}};
    for (const auto& [what, given, median, smooth] : cases) {
        Radii radii = given;
        medianFilterRadii(radii, 2);
        EXPECT_EQ(radii, median) << what;
        radii = given;
        rejectAndSmoothRadii(radii, 3.0f, 2);
        EXPECT_EQ(radii, smooth) << what;
    }
}

TEST(Sampling, CountsPixelCentresAndEndsAtTheOutermostOnes) {
    const cv::Mat ramp = imageOf<uchar>({20, 20}, [](int x, int) { return 10 * x; });
    // The neighbours on the circle count; cut by the corner; between four pixels; off the image.
    const std::tuple<cv::Point2f, float, float, int> discs[] = {
        {{10, 10}, 1, 100, 5}, {{10, 10}, 1.5f, 100, 9}, {{0, 0}, 1, 10.0f / 3, 3}, {{10.5f, 10.5f}, 0.5f, 0, 0}, {{40, 40}, 3, 0, 0}};
    for (const auto& [centre, radius, mean, count] : discs) EXPECT_EQ(meanInDisc(ramp, centre, radius), std::pair(mean, count));
    const cv::Mat image = (cv::Mat_<uchar>(2, 2) << 0, 100, 50, 200);
    const std::tuple<float, float, bool, float> samples[] = {{0.5f, 0, true, 50},  {0, 0.5f, true, 25},   {0.5f, 0.5f, true, 87.5f},
                                                             {1, 1, true, 200},    {-0.01f, 0, false, 0}, {1.01f, 0, false, 0},
                                                             {0, 1.01f, false, 0}, {NAN, 0, false, 0}};
    for (const auto& [x, y, valid, value] : samples) {
        EXPECT_EQ(sampleBilinear(image, x, y).valid, valid);
        EXPECT_FLOAT_EQ(sampleBilinear(image, x, y).value, value);
    }
}

TEST(SearchRadialEdges, MeasuresHalfAPixelInsideTheRim) {
    const cv::Point2d centre(60.25, 59.5);
    for (const float radius : {8.0f, 14.5f, 30.0f}) {
        std::vector<cv::Point2f> points;
        searchRadialEdges(discImage({120, 120}, centre, radius), centre, 0.375f * radius, 1.75f * radius, points, directionTable(72), 12, 0.9f);
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
    const cv::Mat whole = discImage({80, 80}, {40, 40}, 12);
    cv::Mat half = whole.clone();
    half.colRange(40, 80).setTo(200);
    const std::tuple<const char*, cv::Mat, float, float, int, float, bool> cases[] = {
        {"inside", whole, 40, 20, 12, 0.6f, true},
        {"outer circle and 3 px just reach the border", whole, 39, 36, 12, 0.6f, true},
        {"a hair beyond it", whole, 38.99f, 36, 12, 0.6f, false},
        {"no fall that large", whole, 40, 20, 200, 0.6f, false},
        {"no rays asked for, but the border is", whole, 5, 20, 12, 0.0f, false},
        {"half of the rim is enough", half, 40, 20, 12, 0.4f, true},
        {"and is not", half, 40, 20, 12, 0.6f, false}};
    for (const auto& [what, image, x, rOut, drop, ratio, found] : cases) {
        std::vector<cv::Point2f> points(3);
        searchRadialEdges(image, {x, 40}, 4, rOut, points, directionTable(72), drop, ratio);
        EXPECT_EQ(!points.empty(), found) << what;
    }
}

TEST(SearchRadialEdges, ClosesGapsOfTwoRaysAndClampsTheParabola) {
    const cv::Mat disc = discImage({80, 80}, {40, 40}, 12);
    std::vector<cv::Point2f> points;
    // A ray without a direction has no edge; it gets a radius where three within two places have one.
    for (const auto& [gap, count] : {std::pair(2, 72u), {3, 69u}}) {
        auto rays = directionTable(72);
        std::fill_n(rays.begin() + 20, gap, cv::Point2f());
        searchRadialEdges(disc, {40, 40}, 4, 20, points, rays, 12, 0.6f);
        EXPECT_EQ(points.size(), count) << gap;
    }
    // Two half discs: at either end of their joint two rays are half the difference of the radii off their neighbours' mean.
    for (const auto& [radius, count] : {std::pair(15.4, 24u), {16.6, 20u}}) {
        const auto greyAt = [r = radius](int x, int y) {
            const double side = (x - 40) * std::cos(CV_PI / 24) + (y - 40) * std::sin(CV_PI / 24);
            return 40 + 80 * std::erfc((std::hypot(x - 40, y - 40) - (side > 0 ? r : 10)) / 1.2);
        };
        searchRadialEdges(imageOf<uchar>({80, 80}, greyAt), {40, 40}, 4, 25, points, directionTable(24), 12, 0.6f);
        EXPECT_EQ(points.size(), count) << radius;
    }
    // Grey values from the centre on along all rays. Coarse steps from 1.5 px on read every third of them, and the fine
    // samples go from 6 to 12 px; the fall goes on beyond them, and the parabola's top would lie 19.5 px away.
    const std::tuple<float, std::vector<int>, float> profiles[] = {
        {0, {250, 250, 250, 250, 250, 250, 250, 250, 250, 220, 190, 170, 110, 12, 162, 130, 100, 100}, 12},
        {0.5f, {180, 180, 180, 180, 180, 180, 240, 82, 180, 62, 122, 80, 70, 60, 60, 60, 60, 60}, 5}};
    for (const auto& [shift, greys, radius] : profiles) {
        const auto greyAt = [&greys = greys](int x, int) { return greys[static_cast<std::size_t>(std::clamp(x - 30, 0, 17))]; };
        searchRadialEdges(imageOf<uchar>({80, 80}, greyAt), {30 + shift, 40}, 0, 15, points, std::vector<cv::Point2f>(8, {1, 0}), 12, 0.6f);
        ASSERT_EQ(points.size(), 8u);
        EXPECT_FLOAT_EQ(points[0].x - 30 - shift, radius);
    }
}

TEST(ProbeRadialContrast, IsTheShareOfDirectionsThatFall) {
    cv::Mat image = discImage({60, 60}, {30, 30}, 10);
    const auto share = [&image](int contrast) { return probeRadialContrast(image, {30, 30}, 10, 15, contrast, directionTable(24), 2); };
    EXPECT_FLOAT_EQ(share(100), 1.0f);
    EXPECT_FLOAT_EQ(share(170), 0.0f);
    image.rowRange(31, 60).setTo(200);  // 11 of 24 directions point down and see no fall; the two level ones do
    EXPECT_FLOAT_EQ(share(100), 13.0f / 24);
}

TEST(DetectRadialContours, AcceptsBrightRoundBlobsOnly) {
    const cv::Mat grey(120, 160, CV_8UC1, cv::Scalar(40)), disc = discImage(grey.size(), {80, 60}, 14);
    const cv::Mat border = discImage(grey.size(), {18, 60}, 14), dark = discImage(grey.size(), {80, 60}, 14, 40, 200);
    cv::Mat line = grey.clone(), bar = grey.clone();
    line(cv::Rect(20, 60, 100, 3)).setTo(200), bar(cv::Rect(60, 60, 31, 10)).setTo(200);
    const auto sharp = [&grey](int x, int radius) {
        cv::Mat image = grey.clone();
        cv::circle(image, {x, 60}, radius, 200, cv::FILLED);
        return image;
    };
    const auto probes = [](int all, int blind) {  // without a direction a probe sees no contrast
        auto table = directionTable(all);
        std::fill_n(table.begin(), blind, cv::Point2f());
        return table;
    };
    struct Case {
        const char* what;
        cv::Mat image;                      ///< that is reduced
        std::vector<std::size_t> expected;  ///< points of each accepted blob
        int scale = 1;
        bool refine = false;
        float minRayRatio = 0.6f;
        cv::Mat full{};  ///< `image` if empty
        double sigma = 1;
        std::vector<cv::Point2f> probes = directionTable(24);
    } const cases[] = {{"a disc", disc, {72}},
                       {"a disc, reduced", disc, {72}, 2},
                       {"a disc, reduced and detected again", disc, {72}, 2, true},
                       {"a dark disc", dark, {}},
                       {"a thin bar: too small before it is too long", line, {}, 1, false, 0},
                       {"a bar of ratio above 3", bar, {}, 1, false, 0},
                       {"a blob at the border", border, {}},
                       {"the same, without asking for rays: a blob without points", border, {0}, 1, false, 0},
                       {"surroundings off the image: dropped only if detected again", border, {}, 2, true, 0},
                       {"nothing bright when detected again", disc, {}, 2, true, 0, grey},
                       {"nothing", grey, {}},
                       // A box of 29 has an outer radius of 1.25 * 20.5; with 3 px more it needs 28.6.
                       {"room for the outer radius", sharp(29, 14), {72}},
                       {"a pixel less", sharp(28, 14), {}},
                       // A blob from column 3 of an image that is reduced by 2 has 6 px: three sigma, rounded up, and 3.
                       {"room for the surroundings", sharp(20, 14), {0}, 2, true, 0},
                       {"for a larger sigma there is none", sharp(20, 14), {}, 2, true, 0, {}, 1.01},
                       {"nor for sigma 2, which needs 9 px, in 8", sharp(22, 14), {}, 2, true, 0, {}, 2},
                       {"in 10 there is", sharp(24, 14), {0}, 2, true, 0, {}, 2},
                       {"four of five probes", disc, {72}, 1, false, 0.6f, {}, 1, probes(5, 1)},
                       {"79 of 100", disc, {}, 1, false, 0.6f, {}, 1, probes(100, 21)}};
    for (const Case& c : cases) {
        cv::Mat working, blurred, binary, fullBinary, labels;
        cv::resize(c.image, working, c.image.size() / c.scale, 0, 0, cv::INTER_NEAREST);
        std::vector<SubpixelContour> contours(3);  // emptied first
        detectRadialContours(working, c.full.empty() ? c.image : c.full, blurred, binary, fullBinary, labels, c.sigma, 31, contours,
                             directionTable(72), c.probes, 12, -8, c.scale, c.refine, c.minRayRatio, 25);
        std::vector<std::size_t> counts;
        for (const SubpixelContour& contour : contours) counts.push_back(contour.points.size());
        EXPECT_EQ(counts, c.expected) << c.what;
        cv::Mat reflected;
        cv::copyMakeBorder(c.full.empty() ? c.image : c.full, reflected, 15, 15, 15, 15, cv::BORDER_REFLECT_101);
        cv::GaussianBlur(reflected, reflected, {31, 31}, c.sigma);
        EXPECT_EQ(cv::norm(blurred, reflected(cv::Rect({15, 15}, blurred.size())), cv::NORM_INF), 0);
    }
}

}  // namespace kestrune::test::radial_contours
