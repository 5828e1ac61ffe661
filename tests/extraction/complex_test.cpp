// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <opencv2/calib3d.hpp>
#include <set>

#include "MarkerExtractor/extraction/explain.h"
#include "MarkerExtractor/extraction/rim_gates.h"
#include "support/configs.h"

namespace kestrune {
namespace {

bool same(const cv::RotatedRect& a, const cv::RotatedRect& b) {
    return a.center == b.center && a.size == b.size && a.angle == b.angle;
}

struct Found {
    CircleMarkerExtractor extractor;
    std::vector<Corner> corners;
    bool result;
    explicit Found(const cv::Mat& image, const CicrleConfigs& configs = test::rimConfigs())
        : result(extractor.CircleExtractComplex(image, corners, 0, configs)) {
        EXPECT_EQ(result, !corners.empty());
        EXPECT_EQ(extractor.markerName, result ? configs.markerName : "");
        EXPECT_EQ(extractor.markerRects.size(), corners.size());
        for (std::size_t k = 0; k < corners.size(); ++k) {
            EXPECT_EQ(corners[k].id, static_cast<int>(k));
            EXPECT_TRUE(corners[k].conicValid && same(corners[k].ellipse, extractor.markerRects[k]));
            EXPECT_EQ(corners[k].scatter.rows(), 6);
        }
    }
};

TEST(ComplexPath, BrightAndDarkDiscsAreMeasuredAndARingHasTwoRims) {
    cv::Mat image = test::discImage({240, 160}, {60.3, 50.7}, 14, 200, 110);
    test::addDisc(image, {150.6, 60.2}, 18, 20, 110);
    test::addDisc(image, {60.4, 115.2}, 22, 200, 110);
    test::addDisc(image, {60.4, 115.2}, 8, 110, 200);  // halfway to the centre of the outer rim is bright
    cv::Mat colour;
    cv::cvtColor(image, colour, cv::COLOR_GRAY2BGR);
    for (const int scale : {1, 2}) {
        for (const cv::Mat& input : {image, colour}) {
            CicrleConfigs configs = test::rimConfigs();
            configs.scale = scale;
            const Found found(input, configs);
            const struct {
                cv::Point2d centre;
                double radius;
            } truth[] = {{{60.3, 50.7}, 14}, {{150.6, 60.2}, 18}, {{60.4, 115.2}, 22}, {{60.4, 115.2}, 8}};
            ASSERT_EQ(found.corners.size(), 4u);
            for (const auto& t : truth) {
                const auto hits = std::count_if(found.corners.begin(), found.corners.end(), [&t](const Corner& c) {
                    return std::hypot(c.x - t.centre.x, c.y - t.centre.y) < 0.05 &&
                           std::abs(0.25 * (c.ellipse.size.width + c.ellipse.size.height) - t.radius) < 0.15;
                });
                EXPECT_EQ(hits, 1) << t.centre << t.radius << " scale " << scale;
            }
        }
    }
}

/// The working images of one disc with a rim at radius 15, bright inside by `step` grey levels.
RimImages discImages(double step) {
    RimImages images{cv::Mat(80, 90, CV_16UC1), cv::Mat(80, 90, CV_32FC1, cv::Scalar(0)), cv::Mat(80, 90, CV_32FC1, cv::Scalar(0)),
                     cv::Mat(80, 90, CV_32FC1, cv::Scalar(0))};
    for (int y = 0; y < 80; ++y) {
        for (int x = 0; x < 90; ++x) {
            const double r = std::hypot(x - 45.0, y - 40.0), profile = std::exp(-0.5 * (r - 15) * (r - 15));
            images.blur16U.at<std::uint16_t>(y, x) =
                cv::saturate_cast<std::uint16_t>(256 * (100 + step * 0.5 * std::erfc((r - 15) / std::sqrt(2.0))));
            images.grad.at<float>(y, x) = static_cast<float>(std::abs(step) * profile);
            images.dx.at<float>(y, x) = static_cast<float>(-step * profile * (x - 45) / std::max(r, 1.0));
            images.dy.at<float>(y, x) = static_cast<float>(-step * profile * (y - 40) / std::max(r, 1.0));
        }
    }
    return images;
}

std::vector<cv::Point> circlePixels(double radius, int count = 90, double from = 0, double to = 2 * CV_PI) {
    std::vector<cv::Point> pixels;
    for (int k = 0; k < count; ++k) {
        const double a = from + (to - from) * k / count;
        pixels.emplace_back(cvRound(45 + radius * std::cos(a)), cvRound(40 + radius * std::sin(a)));
    }
    return pixels;
}

TEST(ComplexPath, EachGateOfTheFirstStageRefusesWhatItIsFor) {
    const auto bright = discImages(60), dark = discImages(-60), none = discImages(0.0), faint = discImages(4);
    RimImages lying = bright;
    lying.blur16U = dark.blur16U;
    const auto circle = circlePixels(15);
    std::vector<cv::Point> twice = circle, shifted = circle, crumpled = circle;
    twice.insert(twice.end(), circle.begin(), circle.end());
    for (cv::Point& p : shifted) p.x -= 44;
    cv::RNG rng(4);
    for (cv::Point& p : crumpled) p += cv::Point(rng.uniform(-5, 6), rng.uniform(-5, 6));
    using Change = std::function<void(CicrleConfigs&)>;
    const Change asIs = [](auto&) {};
    const struct {
        const char* what;
        const std::vector<cv::Point> contour;
        const RimImages& images;
        Change change;
        RimGate gate;
    } cases[] = {
        {"bright", circle, bright, asIs, RimGate::kNone},
        {"dark", circle, dark, asIs, RimGate::kNone},
        {"out and back", twice, bright, asIs, RimGate::kNone},
        {"four points", {circle.begin(), circle.begin() + 4}, bright, asIs, RimGate::kLength},
        {"90 points for a diameter of 41: 90.2 at least", circle, bright, [](auto& c) { c.minDiameter = 41; }, RimGate::kLength},
        {"90 for 40.9, but the ellipse is smaller", circle, bright, [](auto& c) { c.minDiameter = 40.9f; }, RimGate::kSize},
        {"90 for a diameter of 20.4 at most: 89.7", circle, bright, [](auto& c) { c.maxDiameter = 20.4f; }, RimGate::kLength},
        {"90 for 29", circle, bright, [](auto& c) { c.maxDiameter = 29; }, RimGate::kSize},
        {"no least diameter", circle, bright, [](auto& c) { c.minDiameter = 0; }, RimGate::kNone},
        {"at the border", shifted, bright, asIs, RimGate::kPlace},
        {"not round enough", circle, bright, [](auto& c) { c.minAxisRatio = 1; }, RimGate::kAxisRatio},
        {"crumpled", crumpled, bright, [](auto& c) { c.maxFitResidual = 0.02f; }, RimGate::kResidual},
        {"no gradient", circle, none, asIs, RimGate::kGradient},
        {"a step of 4 in 100", circle, faint, asIs, RimGate::kContrast},
        {"the gradient names the wrong side", circle, lying, asIs, RimGate::kContrast},
        {"half a rim", circlePixels(15, 60, 0, CV_PI), bright, asIs, RimGate::kHull},
    };
    for (const auto& c : cases) {
        CicrleConfigs configs = test::rimConfigs();
        c.change(configs);
        RimScratch scratch;
        const RimVerdict verdict = judgeRim(c.contour, c.images, configs, scratch);
        EXPECT_EQ(verdict.refusedBy, c.gate) << c.what << ' ' << verdict.measured;
        if (!verdict.accepted()) continue;
        EXPECT_EQ(verdict.ellipse.brightInside, &c.images == &bright) << c.what;
        EXPECT_TRUE(
            std::is_sorted(verdict.points.begin(), verdict.points.end(), [](auto a, auto b) { return std::pair(a.y, a.x) < std::pair(b.y, b.x); }));
        EXPECT_TRUE(std::adjacent_find(verdict.points.begin(), verdict.points.end()) == verdict.points.end()) << c.what;
    }
}

TEST(ComplexPath, TheSecondStageMeasuresAndHoldsTheAreaToFourTimesTheSquare) {
    const RimImages images = discImages(60);
    using Change = std::function<void(CicrleConfigs&)>;
    const struct {
        const char* what;
        std::vector<cv::Point> points;
        Change change;
        RimGate gate;
    } cases[] = {
        {"as it is", circlePixels(15), [](auto&) {}, RimGate::kNone},
        {"axes of 30: four times 14.9 squared", circlePixels(15), [](auto& c) { c.minDiameter = 14.9f; }, RimGate::kNone},
        {"not 15.1", circlePixels(15), [](auto& c) { c.minDiameter = 15.1f; }, RimGate::kFinalSize},
        {"no least diameter", circlePixels(15), [](auto& c) { c.minDiameter = 0; }, RimGate::kNone},
        {"not round enough", circlePixels(15), [](auto& c) { c.minAxisRatio = 1; }, RimGate::kFinalAxisRatio},
        {"residual", circlePixels(15), [](auto& c) { c.maxFitResidual = 1e-6f; }, RimGate::kFinalResidual},
        {"four points are left", {{1, 30}, {30, 25}, {60, 40}, {45, 25}, {30, 40}, {40, 79}}, [](auto&) {}, RimGate::kPoints},
        {"none is left", {{1, 30}, {0, 30}, {45, 1}}, [](auto& c) { c.skipUndistort = false; }, RimGate::kPoints},
    };
    for (const auto& c : cases) {
        CicrleConfigs configs = test::rimConfigs();
        c.change(configs);
        const MarkerVerdict verdict = measureRim(c.points, images, configs, {});
        EXPECT_EQ(verdict.refusedBy, c.gate) << c.what << ' ' << verdict.measured;
        if (c.gate == RimGate::kFinalResidual) {
            EXPECT_STREQ(verdict.marker.fitText, "fit_residual:0.01");
        }
        if (!verdict.accepted()) continue;
        EXPECT_NEAR(verdict.marker.x, 45, 0.01);
        EXPECT_NEAR(verdict.marker.y, 40, 0.01);
        EXPECT_NEAR(verdict.marker.ellipse.size.width, 30, 0.1) << c.what;
    }
    RimImages notFinite = images;
    notFinite.grad = images.grad.clone();
    notFinite.grad.at<float>(40, 60) = std::numeric_limits<float>::quiet_NaN();
    EXPECT_EQ(measureRim(circlePixels(15), notFinite, test::rimConfigs(), {}).refusedBy, RimGate::kPoints);

    // With a lens each point goes where cv::undistortPoints puts it, and the ellipse is fitted there.
    CicrleConfigs configs = test::rimConfigs();
    const Corner seen = measureRim(circlePixels(15), images, configs, {}).marker;
    configs.skipUndistort = false;
    const cv::Matx33d k(400, 0, 90, 0, 400, 20, 0, 0, 1);
    const LensModel lens{cv::Mat(k), (cv::Mat_<double>(1, 5) << -0.3, 0.1, 0, 0, 0)};
    std::vector<cv::Point2f> expected;
    cv::undistortPoints(seen.contour, expected, k, lens.distortion, cv::noArray(), k);
    const Corner free = measureRim(circlePixels(15), images, configs, lens).marker;
    EXPECT_GT(cv::norm(seen.contour, expected, cv::NORM_INF), 0.1);
    EXPECT_LT(cv::norm(free.contour, expected, cv::NORM_INF), 1e-4);
    EXPECT_EQ(free.x, cv::fitEllipseDirect(free.contour).center.x);
}

TEST(ComplexPath, OfNestedRimsOfOnePolarityTheInnerStandsAndOfOverlappingOnesTheBetterFit) {
    struct Rim {
        float x, radius;
        double residual;
        bool bright;
    };
    const struct {
        const char* what;
        std::vector<Rim> rims;
        std::vector<int> kept;
    } cases[] = {
        {"apart", {{50, 10, 1, true}, {90, 10, 2, true}}, {0, 1}},
        {"the outer one comes second", {{50, 10, 2, true}, {50, 20, 1, true}}, {0}},
        {"the inner one comes second: the residual decides", {{50, 20, 1, true}, {50, 10, 2, true}}, {0}},
        {"and may decide for it", {{50, 20, 2, true}, {50, 10, 1, true}}, {1}},
        {"on a tie the new one stands", {{50, 20, 1, true}, {50, 10, 1, true}}, {1}},
        {"opposite polarity", {{50, 20, 1, true}, {50, 10, 1, false}}, {0, 1}},
        {"overlapping, the centre outside", {{50, 10, 1, true}, {66, 10, 2, true}}, {0, 1}},
        {"overlapping, the centre inside", {{50, 10, 1, true}, {58, 10, 2, true}}, {0}},
        {"a new one may take the place of many", {{50, 10, 3, true}, {62, 10, 3, true}, {90, 10, 3, true}, {56, 9, 1, true}}, {2, 3}},
        {"from the last on: the last stands against it after one has gone", {{50, 10, 1, true}, {62, 10, 3, true}, {56, 9, 2, true}}, {0}},
    };
    for (const auto& c : cases) {
        RimMarkers markers;
        for (std::size_t k = 0; k < c.rims.size(); ++k) {
            const Rim& rim = c.rims[k];
            EllipseRecord record;
            std::vector<cv::Point2f> contour;
            cv::RotatedRect rect({rim.x, 50}, {2 * rim.radius, 2 * rim.radius}, 0);
            for (int a = 0; a < 24; ++a) contour.emplace_back(rim.x + rim.radius * std::cos(a * 0.2618f), 50 + rim.radius * std::sin(a * 0.2618f));
            fitConicFromEllipse(record, rect, 0, contour);
            Corner corner;
            corner.x = rim.x, corner.y = 50, corner.ellipse = rect, corner.conic = record.conic, corner.contour = contour,
            corner.fitResidual = rim.residual;
            corner.matchIndex = static_cast<int>(k);
            admitRim(std::move(corner), rim.bright, markers);
        }
        std::vector<int> kept;
        for (const Corner& corner : markers.corners) kept.push_back(corner.matchIndex);
        EXPECT_EQ(kept, c.kept) << c.what;
        ASSERT_TRUE(markers.rects.size() == kept.size() && markers.extremePoints.size() == kept.size() && markers.polarity.size() == kept.size());
        for (std::size_t k = 0; k < kept.size(); ++k) EXPECT_TRUE(same(markers.rects[k], markers.corners[k].ellipse)) << c.what;
    }
}

TEST(ComplexPath, SettingsAtTheEndsOfTheirRangesFindNothingOrEverythingButDoNoHarm) {
    const cv::Mat image = test::discImage({90, 80}, {45, 40}, 12);
    constexpr float kInf = std::numeric_limits<float>::infinity(), kNan = std::numeric_limits<float>::quiet_NaN();
    const struct {
        const char* what;
        std::function<void(CicrleConfigs&)> change;
        int found;  // -1: any
    } cases[] = {
        {"as they are", [](auto&) {}, 1},
        {"minDiameter above maxDiameter", [](auto& c) { c.minDiameter = 50, c.maxDiameter = 10; }, 0},
        {"minDiameter 0", [](auto& c) { c.minDiameter = 0; }, 1},
        {"minDiameter negative", [](auto& c) { c.minDiameter = -1e30f; }, -1},
        {"no largest diameter", [](auto& c) { c.maxDiameter = kInf; }, 1},
        {"maxDiameter 0", [](auto& c) { c.maxDiameter = 0; }, 0},
        {"maxDiameter negative", [](auto& c) { c.maxDiameter = -kInf; }, 0},
        {"edgePercentile 0", [](auto& c) { c.edgePercentile = 0; }, -1},
        {"edgePercentile 1", [](auto& c) { c.edgePercentile = 1; }, -1},
        {"edgePercentile above", [](auto& c) { c.edgePercentile = 7; }, -1},
        {"edgePercentile not a number", [](auto& c) { c.edgePercentile = kNan; }, -1},
        {"nmsFactor 0", [](auto& c) { c.nmsFactor = 0; }, -1},
        {"nmsFactor negative", [](auto& c) { c.nmsFactor = -3; }, -1},
        {"nmsFactor not a number", [](auto& c) { c.nmsFactor = kNan; }, 0},
        {"maxFitResidual not a number", [](auto& c) { c.maxFitResidual = kNan; }, 0},
        {"thresholdC at its end", [](auto& c) { c.thresholdC = std::numeric_limits<int>::min(); }, -1},
        {"a wide smoothing", [](auto& c) { c.sigma = 60; }, -1},
        {"no smoothing", [](auto& c) { c.sigma = 0; }, -1},
        {"everything passes",
         [](auto& c) {
             c.edgePercentile = 1, c.nmsFactor = 0, c.minDiameter = -9, c.minAxisRatio = -1, c.maxFitResidual = kInf, c.maxDiameter = kInf;
         },
         -1},
    };
    cv::RNG rng(9);
    cv::Mat noise(80, 90, CV_8UC1);
    rng.fill(noise, cv::RNG::UNIFORM, 0, 256);
    for (const auto& c : cases) {
        for (const int scale : {1, 3}) {
            CicrleConfigs configs = test::rimConfigs();
            c.change(configs);
            configs.scale = scale;
            const std::size_t found = Found(image, configs).corners.size();
            EXPECT_TRUE(c.found < 0 || scale > 1 || found == static_cast<std::size_t>(c.found)) << c.what << ' ' << found;
            for (const cv::Size size : {cv::Size(90, 80), cv::Size(3, 3), cv::Size(80, 4), cv::Size(4, 80)})
                Found(noise(cv::Rect({}, size)), configs);
        }
    }
}

TEST(ExplainedPaths, TellOfEveryCandidateAndEndWithTheMarkersOfThePath) {
    cv::Mat image = test::discImage({260, 160}, {60.3, 50.7}, 14, 200, 110);
    test::addDisc(image, {150.6, 60.2}, 18, 20, 110);
    test::addDisc(image, {60.4, 115.2}, 22, 200, 110);
    test::addDisc(image, {60.4, 115.2}, 8, 110, 200);
    test::addDisc(image, {150, 120}, 5, 200, 110);
    cv::ellipse(image, {215, 80}, {30, 9}, 20, 0, 360, 200, -1, cv::LINE_AA);
    std::set<std::string> gates;
    for (CicrleConfigs configs : {test::rimConfigs(), test::discConfigs(true), test::discConfigs(false)}) {
        configs.minArea = 150;
        configs.minDiameter = 6;
        CircleMarkerExtractor extractor;
        std::vector<Corner> corners;
        ASSERT_TRUE(ExtractCircleMarker(image, extractor, corners, 0, configs));
        const auto candidates = explainExtraction(image, extractor, 0, configs);
        EXPECT_GT(candidates.size(), corners.size());
        std::vector<int> times(corners.size(), 0);
        for (const ExplainedCandidate& candidate : candidates) {
            EXPECT_FALSE(candidate.contour.empty());
            gates.insert(candidate.gate);
            EXPECT_EQ(candidate.gate.empty(), candidate.wanted.empty()) << candidate.gate;
            if (!candidate.gate.empty()) continue;
            const auto id = static_cast<std::size_t>(candidate.marker);
            ASSERT_LT(id, corners.size());
            ++times[id];
            EXPECT_TRUE(same(candidate.ellipse, extractor.markerRects[id]));
        }
        EXPECT_EQ(std::count(times.begin(), times.end(), 1), static_cast<std::ptrdiff_t>(corners.size())) << "one candidate is a marker";
    }
    for (const char* gate : {"", "area", "eccentricity", "axis ratio", "merged"}) EXPECT_EQ(gates.count(gate), 1u) << gate;
}

TEST(ComplexPath, TheSameImageGivesTheSameBitsWhateverCameBefore) {
    cv::Mat image = test::discImage({160, 120}, {60.3, 50.7}, 14, 200, 110), noise(120, 160, CV_8UC1);
    test::addDisc(image, {98.6, 60.2}, 18, 20, 110);
    const Found expected(image);
    CircleMarkerExtractor used;
    cv::RNG rng(1);
    for (int round = 0; round < 3; ++round) {
        std::vector<Corner> corners;
        used.CircleExtractComplex(image, corners, 0, test::rimConfigs());
        ASSERT_EQ(corners.size(), 2u);
        for (std::size_t k = 0; k < 2; ++k) {
            EXPECT_TRUE(corners[k].contour == expected.corners[k].contour && corners[k].conic == expected.corners[k].conic &&
                        corners[k].scatter == expected.corners[k].scatter);
        }
        rng.fill(noise, cv::RNG::UNIFORM, 0, 256);
        std::vector<Corner> others;
        used.CircleExtractComplex(noise, others, 0, test::rimConfigs());
    }
}

}  // namespace
}  // namespace kestrune
