// SPDX-License-Identifier: Apache-2.0
#include "MarkerExtractor/extraction/ellipse_gates.h"

#include "MarkerExtractor/extraction/fast.h"
#include "MarkerExtractor/extraction/hand.h"
#include "MarkerExtractor/extraction/rim_gates.h"
#include "kestrune_scene/scene.h"
#include "support/configs.h"

namespace kestrune::test::ellipse_gates {

/// Points of an ellipse about (50, 40), or of one whose rim strays by a factor.
std::vector<cv::Point2f> ellipsePoints(double a, double b, double angle = 0, double (*factor)(int) = nullptr) {
    std::vector<cv::Point2f> points;
    for (int i = 0; i < 72; ++i) {
        const double f = factor == nullptr ? 1 : factor(i), t = 2 * CV_PI * i / 72, u = f * a * std::cos(t), v = f * b * std::sin(t);
        points.push_back(cv::Point2d(50 + u * std::cos(angle) - v * std::sin(angle), 40 + u * std::sin(angle) + v * std::cos(angle)));
    }
    return points;
}

const auto judge = [](const auto& points, const CicrleConfigs& configs) { return judgeContour(points, SimpleGates(configs), {}); };

TEST(JudgeContour, BoundsAreStrictOrClosedAsDocumented) {
    // A polygon of 72 points on a circle: area and perimeter by elementary geometry, equal to what the gates measure.
    const auto circle = ellipsePoints(10, 10);
    const double area = cv::contourArea(circle);
    EXPECT_NEAR(area, 0.5 * 72 * 100 * std::sin(2 * CV_PI / 72), 1e-3);
    for (const bool radial : {false, true}) {
        CicrleConfigs open = discConfigs(radial);
        open.enableCircularityFilter = open.enableConvexityFilter = true;
        const double e = judge(ellipsePoints(10, 6), open).candidate.eccentricity;
        const double roundness = judge(circle, open).candidate.circularity, convexity = judge(circle, open).candidate.convexRatio;
        const double side = 20 * std::sin(CV_PI / 72);
        EXPECT_LT(cv::norm(cv::Vec3d(e - 0.8, roundness - 4 * CV_PI * area / (72 * 72 * side * side), convexity - 1)), 2e-4);
        using C = CicrleConfigs;
        // Bound, half axis of the ellipse, what is measured, where the bound refuses more, whether the value itself passes.
        const std::tuple<double C::*, double, double, double, bool, Gate> cases[] = {
            {&C::minArea, 10, area, 1e9, true, Gate::kArea},
            {&C::maxArea, 10, area, -1e9, true, Gate::kArea},
            {&C::maxEccentricity, 6, e, -1e9, true, Gate::kEccentricity},
            {&C::minCircularity, 10, roundness, 1e9, true, Gate::kCircularity},
            {&C::maxCircularity, 10, roundness, -1e9, false, Gate::kCircularity},
            {&C::minConvexRatio, 10, convexity, 1e9, true, Gate::kConvexity},
            {&C::maxConvexRatio, 10, convexity, -1e9, true, Gate::kConvexity}};
        for (const auto& [bound, b, value, strict, closed, gate] : cases) {
            CicrleConfigs configs = open;
            const auto points = ellipsePoints(10, b);
            for (const double limit : {value, std::nextafter(value, strict), std::nextafter(value, -strict), std::nan(""), strict}) {
                configs.*bound = limit;
                const bool passes = limit == value ? closed : !(strict > 0 ? limit > value : limit < value);
                EXPECT_EQ(judge(points, configs).refusedBy, passes ? Gate::kNone : gate) << limit << (radial ? " radial" : "");
            }
            configs.enableCircularityFilter = configs.enableConvexityFilter = false;  // the other gates have no switch here
            const GateVerdict verdict = judge(points, configs);
            EXPECT_EQ(verdict.refusedBy, gate == Gate::kCircularity || gate == Gate::kConvexity ? Gate::kNone : gate);
            EXPECT_TRUE(gate != Gate::kArea || verdict.candidate.areaText == cv::format("area:%.2f", area)) << verdict.candidate.areaText;
        }
    }
}

TEST(Gates, TellWhatTheyAskFor) {
    CicrleConfigs c = rimConfigs();
    c.minArea = 150, c.maxArea = 7000, c.maxFitError = 0.5, c.maxPointError = 1;
    const SimpleGates simple(c);
    const HandGates hand(c);
    const RimGates rim(c);
    EXPECT_EQ(simple[Gate::kArea].text(), "minArea 150 to maxArea 7000");
    EXPECT_EQ(FastGates(c)[Gate::kArea].text(), "minArea 150 to below maxArea 7000");
    EXPECT_EQ(simple[Gate::kFitError].text(), "maxFitError 0.5, or no point beyond maxPointError 1");
    EXPECT_EQ(simple[Gate::kPerimeter].text(), "ellipse over contour length, 0.8 to 1.25");
    EXPECT_EQ(hand[Gate::kCompactness].text(), "perimeter squared over area, 4 pi to 8 pi");
    EXPECT_EQ(rim[Gate::kLength].text(), "0.7 pi times minDiameter 5 to maxDiameter 200, in pixels");
    EXPECT_EQ(rim[Gate::kResidual].text(), "5 times maxFitResidual 0.2, before refinement");
    EXPECT_EQ(rim[Gate::kHull].text(), "hull over ellipse area, 0.8 to 1.25");
    EXPECT_EQ(rim[Gate::kFinalSize].text(), "axes whose product is 4 times the square of minDiameter 5");
}

TEST(JudgeContour, MeasuresTheConicOfARadialContour) {
    for (const auto& [a, b, angle] : {std::tuple(10., 10., 0.), std::tuple(20., 14., 0.4), std::tuple(12., 16., 2.9)}) {
        const GateVerdict verdict = judge(ellipsePoints(a, b, angle), discConfigs(true));
        ASSERT_TRUE(verdict.accepted());
        const Corner& c = verdict.candidate;
        const auto value = [&c](double x, double y) { return cv::Vec6d(c.conic.data()).dot({x * x, x * y, y * y, x, y, 1}); };
        EXPECT_NEAR(value(50, 40), -1, 1e-4);
        EXPECT_NEAR(value(50 + a * std::cos(angle), 40 + a * std::sin(angle)), 0, 1e-3);
        EXPECT_NEAR(value(50 - b * std::sin(angle), 40 + b * std::cos(angle)), 0, 1e-3);
        EXPECT_EQ(std::tuple(c.conicValid, c.fitResidual < 1e-3, c.fitError), std::tuple(true, true, 0.0)) << c.fitResidual;
        EXPECT_NEAR(c.area, 4 * a * b, 0.2) << "the axes' product, not the enclosed area";
        ASSERT_EQ(c.scatter.rows(), 6);
        Eigen::MatrixXd sums = Eigen::MatrixXd::Zero(6, 6);  // products of coordinates are in single precision
        for (const cv::Point2f& p : c.contour) {
            const Eigen::Vector<double, 6> monomials{p.x * p.x, p.x * p.y, p.y * p.y, p.x, p.y, 1};
            sums += monomials * monomials.transpose();
        }
        EXPECT_LT(((c.scatter - sums).array() / sums.array()).abs().maxCoeff(), 1e-12);
    }
}

TEST(JudgeContour, ShapeGatesOfBothFrontEnds) {
    const auto circle = ellipsePoints(10, 10), half = std::vector(circle.begin(), circle.begin() + 28);
    const auto spiked = ellipsePoints(10, 10, 0, [](int i) { return i == 0 ? 1.4 : 1; });  // one point 4 px out
    // Nine waves of 0.4 px: RMS distance 0.28 px, RMS of the conic's value 0.057.
    const auto wavy = ellipsePoints(10, 10, 0, [](int i) { return 1 + 0.04 * std::cos(9 * 2 * CV_PI * i / 72); });
    const auto jagged = ellipsePoints(10, 10, 0, [](int i) { return i % 2 == 0 ? 1.08 : 1; });
    const std::tuple<const char*, bool, std::vector<cv::Point2f>, double, float, Gate> cases[] = {
        {"bad on the whole, no bad point", false, wavy, 0.1, 0, Gate::kNone},
        {"a bad point, good on the whole", false, spiked, 1.0, 0, Gate::kNone},
        {"both", false, spiked, 0.1, 0, Gate::kFitError},
        {"residual", true, wavy, 0, 0.05f, Gate::kFitResidual},
        {"residual within", true, wavy, 0, 0.1f, Gate::kNone},
        {"a contour that is longer than its ellipse", true, jagged, 0, 1.0f, Gate::kPerimeter},
        {"an arc is shorter", true, half, 0, 1.0f, Gate::kPerimeter}};
    for (const auto& [what, radial, points, maxFitError, maxResidual, gate] : cases) {
        CicrleConfigs configs = discConfigs(radial);
        configs.maxFitError = maxFitError, configs.maxFitResidual = maxResidual;
        const GateVerdict verdict = judge(points, configs);
        EXPECT_EQ(verdict.refusedBy, gate) << what << ", measured " << verdict.measured;
        if (gate != Gate::kFitError && gate != Gate::kFitResidual) continue;
        EXPECT_EQ(std::string(verdict.candidate.fitText).find(radial ? "fit_residual:" : "fit_error:"), 0u);
    }
}

TEST(EllipseFitError, IsTheDistanceForACircleAndKeepsItsFarSideFactor) {
    const cv::RotatedRect circle({0, 0}, {20, 20}, 30);
    // As `cv::fitEllipse` gives a flat ellipse: the height is the major axis, here along x.
    const cv::RotatedRect flat({0, 0}, {10, 20}, 90);
    const std::tuple<const char*, cv::RotatedRect, std::vector<cv::Point2f>, double, double, bool> cases[] = {
        {"circle, off by 1 and 2", circle, {{11, 0}, {0, -12}}, 2.001, std::sqrt(2.5), true},
        {"limit exceeded, all points counted", circle, {{13, 0}, {0, -11}}, 2.0, std::sqrt(5.0), false},
        {"ends of the axes", flat, {{10, 0}, {-10, 0}, {0, 5}, {0, -5}}, 0.1, 0, true}};
    double error = -1, rounded = -1;
    for (const auto& [what, ellipse, points, limit, expected, near] : cases) {
        EXPECT_EQ(ellipseFitError(ellipse, points, error, limit), near) << what;
        EXPECT_NEAR(error, expected, 1e-6) << what;
        EXPECT_TRUE(ellipseFitError(ellipse, std::vector<cv::Point>(points.begin(), points.end()), rounded, limit) == near && rounded == error)
            << what;
    }
    const double radius = std::sqrt(52.0);  // of a point and its mirror image: only the far side carries the factor a / b
    for (const auto& [x, t] : {std::pair{6.0f, std::atan2(4.0, 6.0)}, std::pair{-6.0f, CV_PI + std::atan(2 * 4 / -6.0)}}) {
        ellipseFitError(flat, std::vector<cv::Point2f>{{x, 4}}, error, 9);
        EXPECT_NEAR(error, std::abs(radius - std::hypot(10 * std::cos(t), 5 * std::sin(t))), 1e-6) << x;
    }
    EXPECT_TRUE(ellipseFitError(flat, std::vector<cv::Point2f>{}, error, 0) && std::isnan(error));
}

TEST(AdmitMarker, SettlesRepetitions) {
    const std::tuple<const char*, double, float, double, double, std::size_t, double> cases[] = {
        {"far away", 12, 10, 0.9, 0.1, 2, 100},          {"as far, but larger", 12, 25, 0.9, 0.1, 1, 112},
        {"at the half axis", 10, 10, 0.9, 0.1, 2, 100},  {"near, rounder and better", 8, 10, 0.9, 0.1, 1, 108},
        {"near, only rounder", 8, 10, 0.9, 0.3, 1, 100}, {"near, only better", 8, 10, 0.7, 0.1, 1, 100},
        {"the same centre", 0, 10, 0.9, 0.1, 2, 100}};
    for (const auto& [what, shift, width, roundness, error, count, keptX] : cases) {
        std::vector<Corner> corners;
        MarkerList markers{corners, {}, 0};
        const auto admit = [&markers](double x, double circularity, double fitError, cv::Size2f size) {
            GateVerdict verdict;
            verdict.candidate.x = x, verdict.candidate.y = 50, verdict.candidate.circularity = circularity, verdict.candidate.fitError = fitError;
            verdict.rect = cv::RotatedRect({static_cast<float>(x), 50}, size, 0);
            verdict.halfAxis = 0.5f * std::max(size.width, size.height);
            admitMarker(verdict, markers);
        };
        admit(500, 0.8, 0.2, {20, 20}), admit(100, 0.8, 0.2, {12, 20}), admit(100 + shift, roundness, error, {width, 8});
        ASSERT_EQ(std::pair(corners.size(), markers.rects.size()), std::pair(1 + count, 1 + count)) << what;
        EXPECT_EQ(std::pair(corners[1].x, markers.rects[1].center.x), std::pair(keptX, static_cast<float>(keptX))) << what;
        for (std::size_t k = 0; k < corners.size(); ++k) EXPECT_EQ(corners[k].id, static_cast<int>(k)) << what;
    }
}

TEST(UndistortCorners, InvertsTheLens) {
    scene::PinholeCamera camera = scene::makeVergedRig({1280, 1024}).right;
    const auto seenThrough = [&camera](const std::array<double, 5>& lens) {
        camera.distortion = lens;
        Corner corner;
        const cv::Point2d centre = scene::projectPoint(camera, {-90, 60, 900});
        corner.x = centre.x, corner.y = centre.y;
        corner.contour = {scene::projectPoint(camera, {120, 90, 900}), scene::projectPoint(camera, {0, 0, 900})};
        return corner;
    };
    const Corner expected = seenThrough({});
    std::vector<Corner> corners = {seenThrough({-0.1, 0.02, 1e-3, -5e-4, 0})}, none;
    const cv::Mat K(camera.intrinsic), lens(camera.distortion);
    CircleMarkerExtractor extractor;
    EXPECT_THROW(extractor.UndistortCorners(corners, cv::Mat(), cv::Mat()), cv::Exception);
    EXPECT_NO_THROW(extractor.UndistortCorners(none, cv::Mat(), cv::Mat()));  // the matrices are not looked at
    extractor.UndistortCorners(corners, K, lens);
    extractor.UndistortCorners(corners, K, cv::Mat());  // no lens: nothing moves
    EXPECT_LT(std::hypot(corners[0].x - expected.x, corners[0].y - expected.y), 1e-3);
    EXPECT_LT(cv::norm(corners[0].contour, expected.contour, cv::NORM_INF), 1e-3);
}

}  // namespace kestrune::test::ellipse_gates
