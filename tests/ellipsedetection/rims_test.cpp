// SPDX-License-Identifier: Apache-2.0

#include <numbers>

#include "ellipsedetection/conic_record.h"
#include "ellipsedetection/contour_tree.h"
#include "ellipsedetection/ellipse_candidates.h"
#include "ellipsedetection/pixel_set.h"
#include "kestrune_geometry/contour_shape.h"
#include "support/configs.h"

namespace kestrune::test::rims {

TEST(Rims, LikeEllipsesOfOnePolarityBecomeTheBetterFit) {
    using Given = std::tuple<float, float, float, double, bool>;  // x, width, height, residual, bright
    const std::tuple<const char*, std::vector<Given>, std::vector<std::size_t>> cases[] = {
        {"nothing", {}, {}},
        {"concentric, the larger fits better", {{50, 24, 24, 0.1, true}, {50, 20, 20, 0.2, true}}, {0}},
        {"concentric, the smaller fits better", {{50, 24, 24, 0.2, true}, {50, 20, 20, 0.1, true}}, {1}},
        {"a tie: the smaller, which comes first", {{50, 24, 24, 0.1, true}, {50, 20, 20, 0.1, true}}, {1}},
        {"a tie of equals: the first given", {{50, 20, 20, 0.1, true}, {51, 20, 20, 0.1, true}}, {0}},
        {"opposite polarity", {{50, 20, 20, 0.1, true}, {50, 20, 20, 0.2, false}}, {0, 1}},
        {"centres at the limit, 0.3 of the mean axis", {{50, 10, 10, 0.1, true}, {53, 10, 10, 0.2, true}}, {0, 1}},
        {"just below it", {{50, 10, 10, 0.1, true}, {52.9f, 10, 10, 0.2, true}}, {0}},
        {"the kept one's axes count: 13 is reached from 14 and 14 only", {{50, 10, 10, 0.1, true}, {53.2f, 14, 14, 0.2, true}}, {0, 1}},
        {"width off by 0.43, height alike: the root mean square is 0.303", {{50, 20, 20, 0.1, true}, {50, 35, 20, 0.2, true}}, {0, 1}},
        {"width off by 0.41: 0.29", {{50, 20, 20, 0.1, true}, {50, 34, 20, 0.2, true}}, {0}},
        {"no width", {{50, 0, 20, 0.1, true}, {50, 0, 20, 0.2, true}}, {0, 1}},
        {"the first like one stands for all", {{50, 20, 20, 0.3, true}, {50, 24, 24, 0.2, true}, {50, 29, 29, 0.1, true}}, {2}}};
    for (const auto& [what, given, kept] : cases) {
        std::vector<PolarEllipse> ellipses, merged(3);
        std::vector<std::vector<cv::Point>> contours, mergedContours(3), expectedContours;
        for (const auto& [x, width, height, residual, bright] : given) {
            const cv::RotatedRect rect({x, 40}, {width, height}, 0);
            ellipses.push_back({EllipseRecord{rect, residual, true, {}, Eigen::MatrixXd::Constant(1, 1, residual)}, bright});
            contours.push_back({cv::Point(static_cast<int>(contours.size()), 0)});
        }
        mergeSimilarEllipses(ellipses, contours, merged, mergedContours, 0.3, 0.3);
        std::vector<const PolarEllipse*> pointers;
        for (const PolarEllipse& ellipse : ellipses) pointers.push_back(&ellipse);
        const Merging merging = mergeAlike(pointers, 0.3, 0.3);
        EXPECT_EQ(merging.kept, kept) << what;
        for (std::size_t k = 0; k < given.size(); ++k) EXPECT_EQ(merging.into[k], kept.size() == 1 ? kept[0] : k) << what;
        for (const std::size_t k : kept) expectedContours.push_back(contours[k]);
        EXPECT_EQ(mergedContours, expectedContours) << what;
        ASSERT_EQ(merged.size(), kept.size()) << what;
        for (std::size_t k = 0; k < kept.size(); ++k) EXPECT_EQ(merged[k].record.scatter, ellipses[kept[k]].record.scatter) << what;
    }
}

std::vector<cv::Point2f> refined(const std::vector<cv::Point>& contour, const cv::Mat& magnitude) {
    return refineContourOnGradient(contour, magnitude.ptr<float>(), magnitude.rows, magnitude.cols);
}

TEST(Rims, PointsMoveToTheRidgeOfTheMagnitude) {
    // On a circle's ridge every point comes to lie on the circle.
    const double radius = 12.3;
    const cv::Point2d centre(20.4, 19.7);
    const auto height = [&](int x, int y) { return 1000 * std::exp(-std::pow((std::hypot(x - centre.x, y - centre.y) - radius) / 4, 2) / 2); };
    std::vector<cv::Point> contour;
    for (int k = 0; k < 71; ++k) {
        const double a = 2 * std::numbers::pi * k / 71;
        contour.emplace_back(cvRound(centre.x + radius * std::cos(a)), cvRound(centre.y + radius * std::sin(a)));
    }
    const auto moved = refined(contour, imageOf<float>({42, 40}, height));
    ASSERT_EQ(moved.size(), contour.size());
    for (const cv::Point2f& p : moved) EXPECT_NEAR(std::hypot(p.x - centre.x, p.y - centre.y), radius, 0.035);

    // The magnitude, at x and y from the point; where the point goes.
    const std::tuple<const char*, std::function<double(double, double)>, cv::Point2d> cases[] = {
        {"a ridge along y, 0.3 px to the right", [](double x, double) { return 100 - 4 * std::pow(x - 0.3, 2); }, {0.3, 0}},
        {"one that is 1.5 px away", [](double x, double) { return 100 - 4 * std::pow(x - 1.5, 2); }, {1.5, 0}},
        {"one that is farther away", [](double x, double) { return 100 - 4 * std::pow(x - 1.6, 2); }, {0, 0}},
        {"a valley, which counts as well", [](double x, double) { return 4 * std::pow(x - 0.3, 2); }, {0.3, 0}},
        {"a ridge along x: without a mixed derivative n stays along x", [](double, double y) { return 100 - 4 * std::pow(y - 0.3, 2); }, {0, 0}},
        {"a diagonal ridge", [](double x, double y) { return 100 - 4 * std::pow(x + y - 0.4, 2); }, {0.2, 0.2}},
        {"flat", [](double, double) { return 5; }, {0, 0}},
        // gxx 2, gyy -6, gxy 1: the larger eigenvalue is -2 - sqrt(17), u = -4 + sqrt(17) > 0, plain Steger.
        {"a saddle", [](double x, double y) { return x * x - 3 * y * y + x * y + 2 * y; }, {-0.0396099, 0.3217555}},
        // gxx -2, gyy 6, gxy 1: the larger eigenvalue is 2 + sqrt(17), u = 4 - sqrt(17) < 0 takes the bound: n = (0, -1).
        {"a valley along x, which takes the bound", [](double x, double y) { return -x * x + 3 * y * y + x * y + 3 * y; }, {0, -0.5}}};
    for (const auto& [what, ridge, shift] : cases) {
        const auto heightAt = [&ridge = ridge](int x, int y) { return ridge(x - 10, y - 10); };
        const auto at = refined({{10, 10}}, imageOf<float>({21, 21}, heightAt));
        ASSERT_EQ(at.size(), 1u);
        EXPECT_LT(cv::norm(cv::Point2d(at[0]) - cv::Point2d(10, 10) - shift), 1e-4) << what;
    }
    const cv::Mat flat(20, 30, CV_32FC1, cv::Scalar(1));
    const std::vector<cv::Point2f> inner = refined({{1, 9}, {2, 2}, {9, 1}, {28, 9}, {27, 17}, {9, 18}, {-4, 9}, {9, 99}}, flat);
    EXPECT_EQ(inner, (std::vector<cv::Point2f>{{2, 2}, {27, 17}})) << "two pixels at each border go";
}

TEST(Rims, PixelsOfALineAreSortedAndTheirHullHasTheAreaOfOpenCvs) {
    cv::RNG rng(3);
    PixelSet set;
    for (int round = 0; round < 500; ++round) {
        const cv::Point origin(rng.uniform(-9, 9000), rng.uniform(-9, 9000)), reach(rng.uniform(1, 60), rng.uniform(1, 60));
        std::vector<cv::Point> points, hull;
        if (round % 3 == 0) cv::ellipse2Poly(origin, {reach.x, reach.y}, rng.uniform(0, 180), 0, rng.uniform(1, 360), 1, points);
        for (int k = round % 3 == 0 ? 0 : rng.uniform(1, 90); k >= 0; --k)
            points.push_back(origin + cv::Point(rng.uniform(0, reach.x), rng.uniform(0, reach.y)));
        set.assign(points);
        EXPECT_EQ(set.hullArea(), geometry::hullArea(points, hull));
        std::ranges::sort(points, {}, [](const cv::Point& p) { return std::pair(p.y, p.x); });
        points.erase(std::unique(points.begin(), points.end()), points.end());
        EXPECT_EQ(set.pixels(), points);
        EXPECT_EQ(set.size(), points.size());
    }
}

TEST(Rims, NestingTellsAClosedLineFromAnOpenOne) {
    // next, previous, first child, parent.
    const std::vector<cv::Vec4i> pair = {{-1, -1, 1, -1}, {-1, -1, -1, 0}};
    const std::vector<cv::Vec4i> twoHoles = {{-1, -1, 1, -1}, {2, -1, -1, 0}, {-1, 1, -1, 0}};
    const std::vector<cv::Vec4i> deep = {{-1, -1, 1, -1}, {-1, -1, 2, 0}, {-1, -1, 3, 1}, {-1, -1, -1, 2}};
    const std::vector<cv::Vec4i> alone = {{-1, -1, -1, -1}};
    const std::tuple<const char*, const std::vector<cv::Vec4i>&, std::vector<double>, int, bool> cases[] = {
        {"alone", alone, {900}, 0, false},
        {"outline with half its area in the hole", pair, {-100, 50}, 0, true},
        {"less than half", pair, {-100, 49.9}, 0, false},
        {"more than all", pair, {-100, 500}, 0, true},
        {"two holes together", twoHoles, {100, 30, -20}, 0, true},
        {"the hole of that outline", twoHoles, {100, 30, -20}, 1, false},
        {"hole with half the outline", pair, {100, -50}, 1, true},
        {"hole a twentieth larger", pair, {100, 105}, 1, true},
        {"hole larger than that", pair, {100, 105.1}, 1, false},
        {"nested outline: a quarter is enough", deep, {400, 90, 80, 20}, 2, true},
        {"less than a quarter", deep, {400, 90, 80, 19.9}, 2, false},
        {"nested hole: a quarter", deep, {400, 90, 80, 20}, 3, true},
        {"hole with an outline in it: its parent's place does not count", deep, {400, 90, 22.5, 20}, 1, true},
        {"nothing in nothing", pair, {0, 0}, 0, true}};
    for (const auto& [what, tree, areas, index, expected] : cases) EXPECT_EQ(nestingOf(index, areas, tree).isRim(), expected) << what;

    const std::vector<cv::Point> notched{{0, 0}, {10, 0}, {10, 10}, {5, 5}, {0, 10}};
    EXPECT_EQ(signedAreas({notched, notched, {{1, 1}, {5, 5}}}, {{-1, -1, 1, -1}, {-1, -1, -1, 0}, {-1, -1, -1, -1}}),
              (std::vector<double>{75, 100, 0}));
}

TEST(Rims, CandidatesAreLinesAroundDiscsWithinTheBounds) {
    cv::Mat blur;
    const auto found = [&blur](const cv::Mat& image, float axisRatio = 0.5f, int minDiameter = 6, int maxDiameter = 200) {
        cv::Mat grad, dx, dy, binary, mask, labels;
        std::vector<std::vector<cv::Point>> candidates(1);
        detectEllipseCandidates(image, image, blur, grad, dx, dy, binary, mask, labels, candidates, 1, 11, -5, 1, 0.8f, 0.95f, axisRatio, minDiameter,
                                maxDiameter);
        EXPECT_TRUE(candidates[0].empty()) << "appended to";
        candidates.erase(candidates.begin());
        return candidates;
    };
    cv::Mat arc(120, 160, CV_8UC1, cv::Scalar(40));
    const cv::Mat grey = arc.clone();
    EXPECT_TRUE(found(arc).empty());
    cv::ellipse(arc, {80, 60}, {20, 20}, 0, 0, 300, 200, 3, cv::LINE_AA);
    for (const auto& contour : found(arc)) EXPECT_LT(cv::contourArea(contour), 900) << "around the stroke, not around a disc";
    const cv::Mat disc = discImage({160, 120}, {80, 60}, 12);
    EXPECT_FALSE(found(disc).empty());
    EXPECT_TRUE(found(disc, 1.01f).empty()) << "no box is rounder than a square";
    EXPECT_TRUE(found(disc, 0.5f, 30, 200).empty() && found(disc, 0.5f, 6, 20).empty()) << "diameters";

    // Strokes of one pixel that begin at (50, 40): a square outline fills 4 (n - 1) of the ellipse's pi n^2 / 4, a U with a
    // short leg of k has 2 n - 1 + k of the perimeter's 4 n.
    const auto square = [&grey](int n) {
        cv::Mat image = grey.clone();
        cv::rectangle(image, cv::Rect(50, 40, n, n), 200);
        return image;
    };
    const auto letterU = [&](int k) {
        cv::Mat image = square(16);
        image(cv::Rect(51, 40, 15, 15)).setTo(40), image(cv::Rect(65, 55 - k, 1, k)).setTo(200);
        return image;
    };
    const std::tuple<const char*, cv::Mat, bool> strokes[] = {
        {"fills 0.154", square(32), true}, {"fills 0.1497", square(33), false}, {"39 of 64", letterU(8), true}, {"38 of 64", letterU(7), false}};
    for (const auto& [what, image, isFound] : strokes) EXPECT_EQ(!found(image).empty(), isFound) << what;
    blur = cv::Mat(grey.size(), CV_16UC1, cv::Scalar(7));
    found(square(16));
    EXPECT_EQ(cv::boundingRect(blur != 7), cv::Rect(50 - 8, 40 - 8, 32, 32)) << "three sigma and 5 px about the blob";
}

}  // namespace kestrune::test::rims
