// SPDX-License-Identifier: Apache-2.0
#include "MarkerExtractor/extraction/ellipse_gates.h"

#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <numbers>

#include "support/configs.h"

namespace kestrune {
namespace {

constexpr double kPi = std::numbers::pi;

std::vector<cv::Point2f> ellipsePoints(double a, double b, double angle = 0, cv::Point2d centre = {50, 40}, int n = 72) {
    std::vector<cv::Point2f> points;
    for (int i = 0; i < n; ++i) {
        const double t = 2 * kPi * i / n, u = a * std::cos(t), v = b * std::sin(t);
        points.emplace_back(static_cast<float>(centre.x + u * std::cos(angle) - v * std::sin(angle)),
                            static_cast<float>(centre.y + u * std::sin(angle) + v * std::cos(angle)));
    }
    return points;
}

GateVerdict judge(const std::vector<cv::Point2f>& points, const CicrleConfigs& configs, bool isFullSize = true) {
    return judgeContour(points, configs, {}, isFullSize);
}

TEST(JudgeContour, BoundsAreStrictOrClosedAsDocumented) {
    // A polygon of 72 points on a circle: area and perimeter by elementary geometry, equal to what the gates measure.
    const auto circle = ellipsePoints(10, 10);
    const double area = cv::contourArea(circle), perimeter = cv::arcLength(circle, true);
    EXPECT_NEAR(area, 0.5 * 72 * 100 * std::sin(2 * kPi / 72), 1e-3);
    const double roundness = area * 12.566370614359172 / (perimeter * perimeter);
    std::vector<cv::Point2f> hull;
    cv::convexHull(circle, hull);
    const double convexity = area / cv::contourArea(hull);
    double e = 0;  // of the ellipse with half axes 10 and 6, as either fit gives it

    using Change = std::function<void(CicrleConfigs&)>;
    const auto below = [](double v) { return std::nextafter(v, -1e9); };
    const auto above = [](double v) { return std::nextafter(v, 1e9); };
    const struct {
        const char* what;
        double b;
        Change change;
        Gate refusedBy;
    } cases[] = {
        {"area at its least", 10, [&](auto& c) { c.minArea = area; }, Gate::kNone},
        {"area below", 10, [&](auto& c) { c.minArea = above(area); }, Gate::kArea},
        {"area at its largest", 10, [&](auto& c) { c.maxArea = area; }, Gate::kNone},
        {"area above", 10, [&](auto& c) { c.maxArea = below(area); }, Gate::kArea},
        {"a bound that is no number", 10, [&](auto& c) { c.minArea = c.maxArea = std::nan(""); }, Gate::kNone},
        {"area without its switch", 10,
         [&](auto& c) {
             c.enableAreaFilter = false;
             c.minArea = 1e5;
         },
         Gate::kArea},
        {"eccentricity at its largest", 6, [&](auto& c) { c.maxEccentricity = e; }, Gate::kNone},
        {"eccentricity above", 6, [&](auto& c) { c.maxEccentricity = below(e); }, Gate::kEccentricity},
        {"circularity at its least", 10,
         [&](auto& c) {
             c.enableCircularityFilter = true;
             c.minCircularity = roundness;
         },
         Gate::kNone},
        {"circularity below", 10,
         [&](auto& c) {
             c.enableCircularityFilter = true;
             c.minCircularity = above(roundness);
         },
         Gate::kCircularity},
        {"circularity at its largest", 10,
         [&](auto& c) {
             c.enableCircularityFilter = true;
             c.maxCircularity = roundness;
         },
         Gate::kCircularity},
        {"circularity, switched off", 10, [&](auto& c) { c.maxCircularity = roundness; }, Gate::kNone},
        {"hull ratio at both bounds", 10,
         [&](auto& c) {
             c.enableConvexityFilter = true;
             c.minConvexRatio = c.maxConvexRatio = convexity;
         },
         Gate::kNone},
        {"hull ratio above", 10,
         [&](auto& c) {
             c.enableConvexityFilter = true;
             c.maxConvexRatio = below(convexity);
         },
         Gate::kConvexity},
    };
    for (const bool radial : {false, true}) {
        e = judge(ellipsePoints(10, 6), test::discConfigs(radial)).candidate.eccentricity;
        EXPECT_NEAR(e, 0.8, 2e-4);
        for (const auto& c : cases) {
            CicrleConfigs configs = test::discConfigs(radial);
            c.change(configs);
            EXPECT_EQ(judge(ellipsePoints(10, c.b), configs).refusedBy, c.refusedBy) << c.what << (radial ? ", radial" : "");
        }
    }
    CicrleConfigs configs = test::discConfigs(true);
    configs.minArea = 1e5;
    EXPECT_STREQ(judge(circle, configs).candidate.areaText, cv::format("area:%.2f", area).c_str());
}

TEST(JudgeContour, MeasuresTheConicOfARadialContour) {
    const struct { double a, b, angle; } cases[] = {{10, 10, 0}, {20, 14, 0.4}, {12, 16, 2.9}};
    for (const auto& shape : cases) {
        const GateVerdict verdict = judge(ellipsePoints(shape.a, shape.b, shape.angle), test::discConfigs(true));
        ASSERT_TRUE(verdict.accepted());
        const Corner& c = verdict.candidate;
        const auto value = [&](double x, double y) {
            return c.conic[0] * x * x + c.conic[1] * x * y + c.conic[2] * y * y + c.conic[3] * x + c.conic[4] * y + c.conic[5];
        };
        EXPECT_TRUE(c.conicValid);
        EXPECT_NEAR(value(50, 40), -1, 1e-4);
        EXPECT_NEAR(value(50 + shape.a * std::cos(shape.angle), 40 + shape.a * std::sin(shape.angle)), 0, 1e-3);
        EXPECT_NEAR(value(50 - shape.b * std::sin(shape.angle), 40 + shape.b * std::cos(shape.angle)), 0, 1e-3);
        EXPECT_LT(c.fitResidual, 1e-3);
        EXPECT_NEAR(c.area, 4 * shape.a * shape.b, 0.2) << "the axes' product, not the enclosed area";
        ASSERT_EQ(c.scatter.rows(), 6);
        EXPECT_NEAR(c.scatter(5, 5), 72, 1e-9);
        EXPECT_NEAR(c.scatter(3, 5), 72 * 50, 1e-2);  // the sum of x
        double fourth = 0;
        for (const cv::Point2f& p : c.contour) fourth += std::pow(static_cast<double>(p.x), 4);
        EXPECT_NEAR(c.scatter(0, 0) / fourth, 1, 1e-6);
        EXPECT_EQ(c.fitError, 0);
    }
}

TEST(JudgeContour, ShapeGatesOfBothFrontEnds) {
    const auto circle = ellipsePoints(10, 10);
    auto spiked = circle;  // one point 4 px out
    spiked[0].x += 4;
    auto wavy = circle;  // nine waves of 0.4 px: RMS distance 0.28 px, RMS of the conic's value 0.057
    for (std::size_t i = 0; i < wavy.size(); ++i) {
        const auto f = static_cast<float>(1 + 0.04 * std::cos(9 * 2 * kPi * static_cast<double>(i) / 72));
        wavy[i] = cv::Point2f(50 + f * (wavy[i].x - 50), 40 + f * (wavy[i].y - 40));
    }
    const auto half = std::vector<cv::Point2f>(circle.begin(), circle.begin() + 28);
    const struct {
        const char* what;
        bool radial;
        std::vector<cv::Point2f> points;
        double maxFitError, maxPointError;
        float maxResidual;
        Gate refusedBy;
    } cases[] = {
        {"bad on the whole, no bad point", false, wavy, 0.1, 1.0, 0, Gate::kNone},
        {"a bad point, good on the whole", false, spiked, 1.0, 1.0, 0, Gate::kNone},
        {"both", false, spiked, 0.1, 1.0, 0, Gate::kFitError},
        {"residual", true, wavy, 0, 0, 0.05f, Gate::kFitResidual},
        {"residual within", true, wavy, 0, 0, 0.1f, Gate::kNone},
        {"a contour that is longer than its ellipse", true,
         [&] {
             auto p = circle;
             for (std::size_t i = 0; i < p.size(); i += 2) p[i] = cv::Point2f(50 + 1.08f * (p[i].x - 50), 40 + 1.08f * (p[i].y - 40));
             return p;
         }(),
         0, 0, 1.0f, Gate::kPerimeter},
        {"an arc is shorter", true, half, 0, 0, 1.0f, Gate::kPerimeter},
    };
    for (const auto& c : cases) {
        CicrleConfigs configs = test::discConfigs(c.radial);
        configs.maxFitError = c.maxFitError;
        configs.maxPointError = c.maxPointError;
        configs.maxFitResidual = c.maxResidual;
        const GateVerdict verdict = judge(c.points, configs);
        EXPECT_EQ(verdict.refusedBy, c.refusedBy) << c.what << ", measured " << verdict.measured;
        if (verdict.refusedBy == Gate::kFitError || verdict.refusedBy == Gate::kFitResidual) {
            EXPECT_NE(std::strstr(verdict.candidate.fitText, c.radial ? "fit_residual:" : "fit_error:"), nullptr);
        }
    }
}

TEST(JudgeContour, BringsAReducedContourToFullSize) {
    CicrleConfigs configs = test::discConfigs(false);
    configs.scale = 3;
    configs.minArea = 2000;  // 313 px^2 reduced, 2822 at full size
    EXPECT_EQ(judge(ellipsePoints(10, 10), configs, true).refusedBy, Gate::kArea);
    const GateVerdict verdict = judge(ellipsePoints(10, 10), configs, false);
    ASSERT_TRUE(verdict.accepted());
    EXPECT_NEAR(verdict.candidate.x, 150, 1e-3);
    EXPECT_NEAR(verdict.candidate.y, 120, 1e-3);
    EXPECT_NEAR(verdict.candidate.area, 3600, 0.1);
    EXPECT_NEAR(verdict.candidate.contour[0].x, 160, 1e-3) << "moved with the centre, not spread";
}

TEST(EllipseFitError, IsTheDistanceForACircleAndKeepsItsFarSideFactor) {
    const cv::RotatedRect circle({0, 0}, {20, 20}, 30);
    // As `cv::fitEllipse` gives a flat ellipse: the height is the major axis, here along x.
    const cv::RotatedRect flat({0, 0}, {10, 20}, 90);
    const struct {
        const char* what;
        cv::RotatedRect e;
        std::vector<cv::Point2f> points;
        double limit, error;
        bool near;
    } cases[] = {
        {"circle, off by 1 and 2", circle, {{11, 0}, {0, -12}}, 2.001, std::sqrt(2.5), true},
        {"limit exceeded, all points counted", circle, {{13, 0}, {0, -11}}, 2.0, std::sqrt(5.0), false},
        {"ends of the axes", flat, {{10, 0}, {-10, 0}, {0, 5}, {0, -5}}, 0.1, 0, true},
    };
    for (const auto& c : cases) {
        double error = -1, rounded = -1;
        EXPECT_EQ(ellipseFitError(c.e, c.points, error, c.limit), c.near) << c.what;
        EXPECT_NEAR(error, c.error, 1e-6) << c.what;
        const std::vector<cv::Point> integers(c.points.begin(), c.points.end());
        EXPECT_EQ(ellipseFitError(c.e, integers, rounded, c.limit), c.near) << c.what;
        EXPECT_EQ(error, rounded) << c.what;
    }
    const double radius = std::sqrt(52.0);  // of a point and its mirror image: only the far side carries the factor a / b
    for (const auto& [x, t] : {std::pair{6.0f, std::atan2(4.0, 6.0)}, std::pair{-6.0f, kPi + std::atan(2 * 4 / -6.0)}}) {
        double error = -1;
        ellipseFitError(flat, std::vector<cv::Point2f>{{x, 4}}, error, 9);
        EXPECT_NEAR(error, std::abs(radius - std::hypot(10 * std::cos(t), 5 * std::sin(t))), 1e-6) << x;
    }
    double empty = 0;
    EXPECT_TRUE(ellipseFitError(flat, std::vector<cv::Point2f>{}, empty, 0));
    EXPECT_TRUE(std::isnan(empty));
}

TEST(AdmitMarker, SettlesRepetitions) {
    const struct {
        const char* what;
        double dx, circularity, fitError;
        std::size_t count;
        double keptX;
    } cases[] = {
        {"far away", 12, 0.9, 0.1, 2, 100},          {"at the half axis", 10, 0.9, 0.1, 2, 100}, {"near, rounder and better", 2, 0.9, 0.1, 1, 102},
        {"near, only rounder", 2, 0.9, 0.3, 1, 100}, {"near, only better", 2, 0.7, 0.1, 1, 100}, {"the same centre", 0, 0.9, 0.1, 2, 100}};
    for (const auto& c : cases) {
        std::vector<Corner> corners;
        MarkerList markers{corners, {}, 0};
        const auto admit = [&markers](double x, double circularity, double fitError, cv::Size2f size) {
            GateVerdict verdict;
            verdict.candidate.x = x;
            verdict.candidate.y = 50;
            verdict.candidate.circularity = circularity;
            verdict.candidate.fitError = fitError;
            verdict.rect = cv::RotatedRect({static_cast<float>(x), 50}, size, 0);
            verdict.halfAxis = 0.5f * std::max(size.width, size.height);
            admitMarker(verdict, markers);
        };
        admit(500, 0.8, 0.2, {20, 20});
        admit(100, 0.8, 0.2, {12, 20});
        admit(100 + c.dx, c.circularity, c.fitError, {10, 8});
        ASSERT_EQ(corners.size(), 1 + c.count) << c.what;
        ASSERT_EQ(markers.rects.size(), corners.size());
        EXPECT_EQ(corners[1].x, c.keptX) << c.what;
        EXPECT_EQ(markers.rects[1].center.x, static_cast<float>(c.keptX)) << c.what;
        for (std::size_t k = 0; k < corners.size(); ++k) EXPECT_EQ(corners[k].id, static_cast<int>(k)) << c.what;
    }
}

TEST(UndistortCorners, InvertsTheLens) {
    const cv::Mat K = (cv::Mat_<double>(3, 3) << 900, 0, 320, 0, 900, 240, 0, 0, 1);
    const cv::Mat lens = (cv::Mat_<double>(1, 5) << -0.1, 0.02, 1e-3, -5e-4, 0);
    const auto distort = [](double x, double y) {  // the lens model, written out
        const double u = (x - 320) / 900, v = (y - 240) / 900, r2 = u * u + v * v, f = 1 - 0.1 * r2 + 0.02 * r2 * r2;
        return cv::Point2d(320 + 900 * (u * f + 2e-3 * u * v - 5e-4 * (r2 + 2 * u * u)),
                           240 + 900 * (v * f + 1e-3 * (r2 + 2 * v * v) - 1e-3 * u * v));
    };
    Corner corner;
    corner.x = distort(600, 20).x;
    corner.y = distort(600, 20).y;
    corner.contour = {distort(10, 470), distort(320, 240)};
    CircleMarkerExtractor extractor;
    std::vector<Corner> corners{corner};
    extractor.UndistortCorners(corners, K, lens);
    EXPECT_NEAR(corners[0].x, 600, 1e-3);
    EXPECT_NEAR(corners[0].y, 20, 1e-3);
    EXPECT_NEAR(corners[0].contour[0].x, 10, 1e-2);
    EXPECT_NEAR(corners[0].contour[0].y, 470, 1e-2);
    EXPECT_NEAR(corners[0].contour[1].x, 320, 1e-3);
    const double once = corners[0].x;
    extractor.UndistortCorners(corners, K, cv::Mat());
    EXPECT_NEAR(corners[0].x, once, 1e-9);
    corners.clear();
    EXPECT_NO_THROW(extractor.UndistortCorners(corners, cv::Mat(), cv::Mat()));  // the matrices are not looked at
    corners = {corner};
    EXPECT_THROW(extractor.UndistortCorners(corners, cv::Mat(), cv::Mat()), cv::Exception);
}

}  // namespace
}  // namespace kestrune
