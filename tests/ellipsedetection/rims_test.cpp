// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <numbers>

#include "ellipsedetection/conic_record.h"
#include "ellipsedetection/contour_tree.h"
#include "ellipsedetection/ellipse_candidates.h"
#include "support/configs.h"

namespace kestrune {
namespace {

TEST(Rims, LikeEllipsesOfOnePolarityBecomeTheBetterFit) {
    struct Given {
        float x, width, height;
        double residual;
        bool bright;
    };
    const struct {
        const char* what;
        std::vector<Given> given;
        std::vector<int> kept;  // indices, in the order of the result
    } cases[] = {
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
        {"the first like one stands for all", {{50, 20, 20, 0.3, true}, {50, 24, 24, 0.2, true}, {50, 29, 29, 0.1, true}}, {2}},
    };
    for (const auto& c : cases) {
        std::vector<PolarEllipse> ellipses, merged(3);
        std::vector<std::vector<cv::Point>> contours, mergedContours(3);
        for (const Given& g : c.given) {
            EllipseRecord record{
                cv::RotatedRect({g.x, 40}, {g.width, g.height}, 0), g.residual, true, {}, Eigen::MatrixXd::Constant(1, 1, g.residual)};
            ellipses.push_back({record, g.bright});
            contours.push_back({cv::Point(static_cast<int>(contours.size()), 0)});
        }
        mergeSimilarEllipses(ellipses, contours, merged, mergedContours, 0.3, 0.3);
        std::vector<int> kept;
        for (const auto& contour : mergedContours) kept.push_back(contour[0].x);
        EXPECT_EQ(kept, c.kept) << c.what;
        ASSERT_EQ(merged.size(), c.kept.size()) << c.what;
        for (std::size_t k = 0; k < merged.size(); ++k) {
            const PolarEllipse& expected = ellipses[static_cast<std::size_t>(c.kept[k])];
            EXPECT_EQ(merged[k].record.fitResidual, expected.record.fitResidual) << c.what;
            EXPECT_EQ(merged[k].record.scatter, expected.record.scatter) << c.what;
            EXPECT_EQ(merged[k].brightInside, expected.brightInside) << c.what;
        }
    }
}

cv::Mat ridge(cv::Size size, const std::function<double(int, int)>& height) {
    cv::Mat image(size, CV_32FC1);
    for (int y = 0; y < size.height; ++y) {
        for (int x = 0; x < size.width; ++x) image.at<float>(y, x) = static_cast<float>(height(x, y));
    }
    return image;
}

std::vector<cv::Point2f> refined(const std::vector<cv::Point>& contour, const cv::Mat& magnitude) {
    return refineContourOnGradient(contour, magnitude.ptr<float>(), magnitude.rows, magnitude.cols);
}

TEST(Rims, PointsMoveToTheRidgeOfTheMagnitude) {
    // On a circle's ridge every point comes to lie on the circle.
    const double radius = 12.3;
    const cv::Point2d centre(20.4, 19.7);
    const cv::Mat magnitude =
        ridge({42, 40}, [&](int x, int y) { return 1000 * std::exp(-0.5 * std::pow((std::hypot(x - centre.x, y - centre.y) - radius) / 4, 2)); });
    std::vector<cv::Point> contour;
    for (int k = 0; k < 71; ++k) {
        const double a = 2 * std::numbers::pi * k / 71;
        contour.emplace_back(cvRound(centre.x + radius * std::cos(a)), cvRound(centre.y + radius * std::sin(a)));
    }
    const auto moved = refined(contour, magnitude);
    ASSERT_EQ(moved.size(), contour.size());
    for (const cv::Point2f& p : moved) EXPECT_NEAR(std::hypot(p.x - centre.x, p.y - centre.y), radius, 0.035);

    const struct {
        const char* what;
        std::function<double(int, int)> height;
        cv::Point2f shift;
    } cases[] = {
        {"a ridge along y, 0.3 px to the right", [](int x, int) { return 100 - 4 * (x - 10.3) * (x - 10.3); }, {0.3f, 0}},
        {"one that is 1.5 px away", [](int x, int) { return 100 - 4 * (x - 11.5) * (x - 11.5); }, {1.5f, 0}},
        {"one that is farther away", [](int x, int) { return 100 - 4 * (x - 11.6) * (x - 11.6); }, {0, 0}},
        {"a valley, which counts as well", [](int x, int) { return 4 * (x - 10.3) * (x - 10.3); }, {0.3f, 0}},
        {"a ridge along x exactly: without a mixed derivative n stays along x", [](int, int y) { return 100 - 4 * (y - 10.3) * (y - 10.3); }, {0, 0}},
        {"a diagonal ridge", [](int x, int y) { return 100 - 4 * (x + y - 20.4) * (x + y - 20.4); }, {0.2f, 0.2f}},
        {"flat", [](int, int) { return 5.0; }, {0, 0}},
        // gxx 2, gyy -6, gxy 1: the larger eigenvalue is -2 - sqrt(17), u = -4 + sqrt(17) > 0, plain Steger.
        {"a saddle",
         [](int x, int y) { return (x - 10) * (x - 10) - 3 * (y - 10) * (y - 10) + (x - 10) * (y - 10) + 2 * (y - 10); },
         {-0.0396099f, 0.3217555f}},
        // gxx -2, gyy 6, gxy 1: the larger eigenvalue is 2 + sqrt(17), u = 4 - sqrt(17) < 0 takes the bound: n = (0, -1).
        {"a valley along x, which takes the bound",
         [](int x, int y) { return -(x - 10) * (x - 10) + 3 * (y - 10) * (y - 10) + (x - 10) * (y - 10) + 3 * (y - 10); },
         {0, -0.5f}},
    };
    for (const auto& c : cases) {
        const auto at = refined({{10, 10}}, ridge({21, 21}, c.height));
        ASSERT_EQ(at.size(), 1u);
        EXPECT_NEAR(at[0].x - 10, c.shift.x, 1e-4) << c.what;
        EXPECT_NEAR(at[0].y - 10, c.shift.y, 1e-4) << c.what;
    }
    const cv::Mat flat(20, 30, CV_32FC1, cv::Scalar(1));
    const std::vector<cv::Point2f> inner = refined({{1, 9}, {2, 2}, {9, 1}, {28, 9}, {27, 17}, {9, 18}, {-4, 9}, {9, 99}}, flat);
    EXPECT_EQ(inner, (std::vector<cv::Point2f>{{2, 2}, {27, 17}})) << "two pixels at each border go";
}

TEST(Rims, NestingTellsAClosedLineFromAnOpenOne) {
    // next, previous, first child, parent.
    const std::vector<cv::Vec4i> pair = {{-1, -1, 1, -1}, {-1, -1, -1, 0}};
    const std::vector<cv::Vec4i> twoHoles = {{-1, -1, 1, -1}, {2, -1, -1, 0}, {-1, 1, -1, 0}};
    const std::vector<cv::Vec4i> deep = {{-1, -1, 1, -1}, {-1, -1, 2, 0}, {-1, -1, 3, 1}, {-1, -1, -1, 2}};
    const struct {
        const char* what;
        const std::vector<cv::Vec4i>& tree;
        std::vector<double> areas;
        int index;
        bool expected;
    } cases[] = {
        {"alone", {{{-1, -1, -1, -1}}}, {900}, 0, false},
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
        {"nothing in nothing", pair, {0, 0}, 0, true},
    };
    for (const auto& c : cases) EXPECT_EQ(isNestedLikeARim(c.index, c.areas, c.tree), c.expected) << c.what;

    const std::vector<cv::Point> notched{{0, 0}, {10, 0}, {10, 10}, {5, 5}, {0, 10}};
    EXPECT_EQ(signedAreas({notched, notched, {{1, 1}, {5, 5}}}, {{-1, -1, 1, -1}, {-1, -1, -1, 0}, {-1, -1, -1, -1}}),
              (std::vector<double>{75, 100, 0}));
}

struct Finder {
    cv::Mat blur, grad, dx, dy, binary, mask, labels;
    int aperture = 11, thresholdC = -5, minDiameter = 6, maxDiameter = 200;
    float sigma = 1, axisRatio = 0.5f;

    std::vector<std::vector<cv::Point>> operator()(const cv::Mat& full, int scale = 1) {
        cv::Mat reduced = full;
        if (scale > 1) cv::resize(full, reduced, full.size() / scale, 0, 0, cv::INTER_LINEAR);
        std::vector<std::vector<cv::Point>> candidates(1);
        detectEllipseCandidates(reduced, full, blur, grad, dx, dy, binary, mask, labels, candidates, sigma, aperture, thresholdC, scale, 0.8f, 0.95f,
                                axisRatio, minDiameter, maxDiameter);
        EXPECT_TRUE(candidates[0].empty()) << "appended to";
        candidates.erase(candidates.begin());
        return candidates;
    }
};

TEST(Rims, CandidatesLieOnTheRimInPixelsOfTheFullImage) {
    for (const double inside : {200.0, 20.0}) {
        for (const int scale : {1, 2}) {
            for (const cv::Point2d centre : {cv::Point2d(83.3, 60.8), cv::Point2d(14.2, 13.6)}) {
                Finder find;
                if (scale == 2) find.aperture = 7;
                const auto candidates = find(test::discImage({160, 120}, centre, 12, inside, 110), scale);
                ASSERT_GE(candidates.size(), 1u) << inside << ' ' << scale << ' ' << centre;
                for (const auto& contour : candidates) {
                    for (const cv::Point& p : contour) EXPECT_NEAR(cv::norm(cv::Point2d(p) - centre), 12, 1.6);
                }
            }
        }
    }
    cv::Mat arc(120, 160, CV_8UC1, cv::Scalar(40));
    cv::ellipse(arc, {80, 60}, {20, 20}, 0, 0, 300, 200, 3, cv::LINE_AA);
    Finder find;
    EXPECT_TRUE(find(cv::Mat(120, 160, CV_8UC1, cv::Scalar(9))).empty());
    for (const auto& contour : find(arc)) EXPECT_LT(cv::contourArea(contour), 900) << "the edge runs around the stroke, not around a disc";
    const cv::Mat disc = test::discImage({160, 120}, {80, 60}, 12);
    find.axisRatio = 1.01f;
    EXPECT_TRUE(find(disc).empty()) << "no box is rounder than a square";
    find.axisRatio = 0.5f;
    find.minDiameter = 30;
    EXPECT_TRUE(find(disc).empty());
    find.minDiameter = 6;
    find.maxDiameter = 20;
    EXPECT_TRUE(find(disc).empty());
}

TEST(Rims, CandidatesDoNotDependOnWhatWasThereBefore) {
    cv::Mat image = test::discImage({200, 160}, {60, 60}, 14, 180, 90);
    test::addDisc(image, {92, 62}, 12, 30, 90);  // windows overlap
    test::addDisc(image, {150, 110}, 20, 160, 90);
    Finder fresh, used;
    const auto expected = fresh(image);
    EXPECT_GE(expected.size(), 3u);
    cv::RNG rng(2);
    for (int round = 0; round < 3; ++round) {
        for (cv::Mat* working : {&used.blur, &used.grad, &used.dx, &used.dy, &used.mask}) {
            if (!working->empty()) rng.fill(*working, cv::RNG::UNIFORM, 0, 255);
        }
        EXPECT_EQ(used(image), expected) << round;
    }
}

}  // namespace
}  // namespace kestrune
