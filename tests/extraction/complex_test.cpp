// SPDX-License-Identifier: Apache-2.0

#include <set>

#include "MarkerExtractor/extraction/complex.h"
#include "MarkerExtractor/extraction/explain.h"
#include "MarkerExtractor/extraction/plain_road.h"
#include "MarkerExtractor/extraction/rim_markers.h"
#include "MarkerExtractor/extraction/rim_windows.h"
#include "canny/fast_gaussian.h"
#include "ellipsedetection/gradient.h"
#include "support/calls.h"
#include "support/configs.h"
#include "support/teams.h"

namespace kestrune::test::complex_path {

using C = CicrleConfigs;

/// Centre, radius, grey inside and outside: a bright disc, a dark one, one close to the border, and a ring with its outer
/// and its inner rim, whose ground halfway to the centre is bright.
const std::tuple<cv::Point2d, double, int, int> kRims[] = {{{60.3, 50.7}, 14, 200, 110},
                                                           {{150.6, 60.2}, 18, 20, 110},
                                                           {{14.2, 145.6}, 12, 200, 110},
                                                           {{60.4, 115.2}, 22, 200, 110},
                                                           {{60.4, 115.2}, 8, 110, 200}};

cv::Mat rimsImage(cv::Size size = {240, 160}) {
    cv::Mat image(size, CV_8UC1, cv::Scalar(110));
    for (const auto& [centre, radius, inside, outside] : kRims) addDisc(image, centre, radius, inside, outside);
    return image;
}

TEST(ComplexPath, BrightAndDarkDiscsAreMeasuredAndARingHasTwoRims) {
    const cv::Mat image = rimsImage();
    cv::Mat colour;
    cv::cvtColor(image, colour, cv::COLOR_GRAY2BGR);
    for (const int scale : {1, 2}) {
        for (const cv::Mat& input : {image, colour}) {
            CicrleConfigs configs = rimConfigs();
            configs.scale = scale;
            const Found found(input, configs);
            ASSERT_EQ(found.corners.size(), 5u);
            for (const auto& rim : kRims) {
                const auto isOnRim = [&rim](const Corner& c) {
                    const double radius = 0.25 * (c.ellipse.size.width + c.ellipse.size.height);
                    return cv::norm(cv::Point2d(c.x, c.y) - std::get<0>(rim)) < 0.05 && std::abs(radius - std::get<1>(rim)) < 0.15;
                };
                EXPECT_EQ(std::ranges::count_if(found.corners, isOnRim), 1) << std::get<1>(rim) << " scale " << scale;
            }
        }
    }
}

TEST(ComplexPath, ADiscBesideAnotherIsMeasuredAsIfItWereAlone) {
    cv::Mat image = discImage({160, 100}, {50.3, 50.2}, 15);
    addDisc(image, {90.3, 50.2}, 15);
    CicrleConfigs configs = rimConfigs();
    configs.sigma = 2;
    const Found found(image, configs);
    ASSERT_EQ(found.corners.size(), 2u);
    for (const Corner& c : found.corners) EXPECT_LT(std::hypot(c.x - (c.x < 70 ? 50.3 : 90.3), c.y - 50.2), 0.01);
}

/// The working images of one disc with a rim at radius `rim`, bright inside by `step` grey levels.
RimImages discImages(double step, double rim = 15) {
    const cv::Size size(90, 80);
    const auto radius = [](int x, int y) { return std::hypot(x - 45, y - 40); };
    const auto grey = [&](int x, int y) { return 256 * (100 + step * 0.5 * std::erfc((radius(x, y) - rim) / std::sqrt(2.0))); };
    const auto slope = [&](int x, int y) { return step * std::exp(-0.5 * std::pow(radius(x, y) - rim, 2)); };
    return {imageOf<std::uint16_t>(size, grey), imageOf<float>(size, [&](int x, int y) { return std::abs(slope(x, y)); }),
            imageOf<float>(size, [&](int x, int y) { return -slope(x, y) * (x - 45) / std::max(radius(x, y), 1.0); }),
            imageOf<float>(size, [&](int x, int y) { return -slope(x, y) * (y - 40) / std::max(radius(x, y), 1.0); })};
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
    const auto bright = discImages(60);
    RimImages lying = bright;
    lying.blur16U = discImages(-60).blur16U;
    // Halfway to the centre the nearest pixel is read: half a pixel aside, the ground's slope makes 1 of it.
    RimImages tilted = discImages(12.5);
    tilted.blur16U =
        imageOf<std::uint16_t>({90, 80}, [flat = tilted.blur16U](int x, int y) { return flat.at<std::uint16_t>(y, x) + 512 * (x - 45 + y - 40); });
    const auto circle = circlePixels(15);
    std::vector<cv::Point> twice = circle, shifted = circle, crumpled = circle;
    twice.insert(twice.end(), circle.begin(), circle.end());
    for (cv::Point& p : shifted) p.x -= 44;
    cv::RNG rng(4);
    for (cv::Point& p : crumpled) p += cv::Point(rng.uniform(-5, 6), rng.uniform(-5, 6));
    // An arc of angle t has a hull of (t - sin t) / 2 R^2. A circle with one pixel at distance d on each side has one of
    // 2 d^2, in an ellipse of pi times the mean square radius, (90 * 15^2 + 4 d^2) / 94.
    const std::vector<cv::Point> four(circle.begin(), circle.begin() + 4), shortArc = circlePixels(15, 90, 0, 4),
                                                                           longArc = circlePixels(15, 90, 0, 4.4);
    const auto spiked = [&circle](int d) {
        std::vector<cv::Point> contour = circle;
        for (const cv::Point p : {cv::Point(d, 0), {-d, 0}, {0, d}, {0, -d}}) contour.push_back(cv::Point(45, 40) + p);
        return contour;
    };
    const auto arcAbout = [](double x, double y, double halfTurn) {
        std::vector<cv::Point> arc;
        for (double a = -halfTurn; a < halfTurn; a += 1.0 / 30) arc.emplace_back(cvRound(x + 15 * std::cos(a)), cvRound(y + 15 * std::sin(a)));
        return arc;
    };
    // Contour, images, the setting that is changed.
    const std::tuple<const char*, std::vector<cv::Point>, RimImages, float C::*, float, Gate> cases[] = {
        {"bright", circle, bright, nullptr, 0, Gate::kNone},
        {"out and back", twice, bright, nullptr, 0, Gate::kNone},
        {"four points", four, bright, nullptr, 0, Gate::kLength},
        {"90 points for a diameter of 41: 90.2 at least", circle, bright, &C::minDiameter, 41, Gate::kLength},
        {"90 for 40.9, but the ellipse is smaller", circle, bright, &C::minDiameter, 40.9f, Gate::kSize},
        {"90 for a diameter of 20.4 at most: 89.7", circle, bright, &C::maxDiameter, 20.4f, Gate::kLength},
        {"90 for 29", circle, bright, &C::maxDiameter, 29, Gate::kSize},
        {"no least diameter", circle, bright, &C::minDiameter, 0, Gate::kNone},
        {"at the border", shifted, bright, nullptr, 0, Gate::kPlace},
        {"within its first pixel", arcAbout(0.8, 40, 1.5), bright, nullptr, 0, Gate::kPlace},
        {"beyond it, where there is no step", arcAbout(1.8, 40, 1.5), bright, nullptr, 0, Gate::kGradient},
        {"not round enough", circle, bright, &C::minAxisRatio, 1, Gate::kAxisRatio},
        {"crumpled", crumpled, bright, &C::maxFitResidual, 0.02f, Gate::kResidual},
        {"no gradient", circle, discImages(0.0), nullptr, 0, Gate::kGradient},
        {"about 86 times the step: 0.086", circle, discImages(0.001), nullptr, 0, Gate::kGradient},
        {"0.112", circle, discImages(0.0013), nullptr, 0, Gate::kContrast},
        {"105 on the rim and 110 inside: 0.9545", circle, discImages(10), nullptr, 0, Gate::kContrast},
        {"106.25 and 112.5: 0.9444", circle, discImages(12.5), nullptr, 0, Gate::kNone},
        {"the same between pixels, on a slope", arcAbout(45.5, 40.5, CV_PI), tilted, nullptr, 0, Gate::kNone},
        {"91 inside and 95.5 on the rim: 0.9529", circle, discImages(-9), nullptr, 0, Gate::kContrast},
        {"89 and 94.5: 0.9418", circle, discImages(-11), nullptr, 0, Gate::kNone},
        {"the gradient names the wrong side", circle, lying, nullptr, 0, Gate::kContrast},
        {"a hull of 0.757 ellipses", shortArc, bright, nullptr, 0, Gate::kHull},
        {"of 0.852", longArc, bright, nullptr, 0, Gate::kNone},
        {"of 1.20", spiked(21), bright, nullptr, 0, Gate::kNone},
        {"of 1.31", spiked(22), bright, nullptr, 0, Gate::kHull}};
    for (const auto& [what, contour, images, setting, value, gate] : cases) {
        CicrleConfigs configs = rimConfigs();
        if (setting != nullptr) configs.*setting = value;
        RimScratch scratch;
        const RimVerdict verdict = judgeRim(contour, images, RimGates(configs), scratch);
        EXPECT_EQ(verdict.refusedBy, gate) << what << ' ' << verdict.measured;
        if (!verdict.accepted()) continue;
        EXPECT_EQ(verdict.ellipse.brightInside, images.blur16U.at<std::uint16_t>(40, 45) > images.blur16U.at<std::uint16_t>(0, 0)) << what;
        const auto fallsBack = [](cv::Point a, cv::Point b) { return std::pair(a.y, a.x) >= std::pair(b.y, b.x); };
        EXPECT_TRUE(std::ranges::adjacent_find(verdict.points, fallsBack) == verdict.points.end()) << what << ": row by row, each once";
    }
}

TEST(ComplexPath, TheSecondStageMeasuresAndHoldsTheAreaToFourTimesTheSquare) {
    const RimImages images = discImages(60);
    RimImages notFinite = images;
    notFinite.grad = images.grad.clone();
    notFinite.grad.at<float>(40, 60) = std::numeric_limits<float>::quiet_NaN();
    const auto circle = circlePixels(15);
    const std::vector<cv::Point> fourInside = {{1, 30}, {30, 25}, {60, 40}, {45, 25}, {30, 40}, {40, 79}}, noneInside = {{1, 30}, {0, 30}, {45, 1}};
    const std::tuple<const char*, std::vector<cv::Point>, const RimImages&, float C::*, float, Gate> cases[] = {
        {"as it is", circle, images, nullptr, 0, Gate::kNone},
        {"axes of 30: four times 14.9 squared", circle, images, &C::minDiameter, 14.9f, Gate::kNone},
        {"not 15.1", circle, images, &C::minDiameter, 15.1f, Gate::kFinalSize},
        {"no least diameter", circle, images, &C::minDiameter, 0, Gate::kNone},
        {"not round enough", circle, images, &C::minAxisRatio, 1, Gate::kFinalAxisRatio},
        {"residual", circle, images, &C::maxFitResidual, 1e-6f, Gate::kFinalResidual},
        {"no bound of the residual", circle, images, &C::maxFitResidual, NAN, Gate::kFinalResidual},
        {"four points are left", fourInside, images, nullptr, 0, Gate::kPoints},
        {"none is left", noneInside, images, nullptr, 0, Gate::kPoints},
        {"a gradient that is not finite", circle, notFinite, nullptr, 0, Gate::kPoints}};
    for (const auto& [what, points, given, setting, value, gate] : cases) {
        CicrleConfigs configs = rimConfigs();
        if (setting != nullptr) configs.*setting = value;
        // Without points the lens is not looked at.
        const auto lens = points == noneInside ? std::optional<LensModel>(std::in_place) : std::nullopt;
        const MarkerVerdict verdict = measureRim(points, given, RimGates(configs), lens);
        EXPECT_EQ(verdict.refusedBy, gate) << what << ' ' << verdict.measured;
        EXPECT_TRUE(gate != Gate::kFinalResidual || verdict.marker.fitText == std::string("fit_residual:0.01"));
        if (!verdict.accepted()) continue;
        EXPECT_LT(std::hypot(verdict.marker.x - 45, verdict.marker.y - 40), 0.01) << what;
        EXPECT_NEAR(verdict.marker.ellipse.size.width, 30, 0.1) << what;
    }
}

TEST(ComplexPath, TheLastFitDoesNotSeeTheOrderOfThePoints) {
    const RimImages images = discImages(60, 25);
    std::vector<cv::Point> points = circlePixels(25, 160), byRows = points;
    std::ranges::sort(byRows, {}, [](cv::Point p) { return std::pair(p.y, p.x); });
    const Corner expected = measureRim(points, images, RimGates(rimConfigs()), {}).marker,
                 actual = measureRim(byRows, images, RimGates(rimConfigs()), {}).marker;
    EXPECT_TRUE(same(actual.ellipse, expected.ellipse));
    EXPECT_EQ(actual.contour, refineContourOnGradient(byRows, images.grad.ptr<float>(), 80, 90));
}

TEST(ComplexPath, OfNestedRimsOfOnePolarityTheInnerStandsAndOfOverlappingOnesTheBetterFit) {
    using Rim = std::tuple<float, float, double, bool>;  // x, radius, residual, bright
    const std::tuple<const char*, std::vector<Rim>, std::vector<std::size_t>> cases[] = {
        {"apart", {{50, 10, 1, true}, {90, 10, 2, true}}, {0, 1}},
        {"the outer one comes second", {{50, 10, 2, true}, {50, 20, 1, true}}, {0}},
        {"the inner one comes second: the residual decides", {{50, 20, 1, true}, {50, 10, 2, true}}, {0}},
        {"and may decide for it", {{50, 20, 2, true}, {50, 10, 1, true}}, {1}},
        {"on a tie the new one stands", {{50, 20, 1, true}, {50, 10, 1, true}}, {1}},
        {"opposite polarity", {{50, 20, 1, true}, {50, 10, 1, false}}, {0, 1}},
        {"overlapping, the centre outside", {{50, 10, 1, true}, {66, 10, 2, true}}, {0, 1}},
        {"overlapping, the centre inside", {{50, 10, 1, true}, {58, 10, 2, true}}, {0}},
        {"one end outside, at 12 from the centre", {{50, 10, 2, true}, {52, 11, 1, true}}, {1}},
        {"a new one may take the place of many", {{50, 10, 3, true}, {62, 10, 3, true}, {90, 10, 3, true}, {56, 9, 1, true}}, {2, 3}},
        {"from the last on: the last stands against it after one has gone", {{50, 10, 1, true}, {62, 10, 3, true}, {56, 9, 2, true}}, {0}}};
    for (int run = 0; run < 4 * static_cast<int>(std::size(cases)); ++run) {  // each to the right, the left, below and above
        const auto& [what, rims, expected] = cases[run / 4];
        std::vector<RimMarker> markers;
        for (std::size_t k = 0; k < rims.size(); ++k) {
            const auto [x, radius, residual, bright] = rims[k];
            const float away = run % 2 == 0 ? x - 50 : 50 - x;
            EllipseRecord record;
            Corner corner;
            corner.ellipse = cv::RotatedRect(run % 4 < 2 ? cv::Point2f(50 + away, 50) : cv::Point2f(50, 50 + away), {2 * radius, 2 * radius}, 0);
            corner.x = corner.ellipse.center.x, corner.y = corner.ellipse.center.y;
            corner.fitResidual = residual;
            for (double a = 0; a < 6.28; a += CV_PI / 12)
                corner.contour.push_back(cv::Point2d(corner.x + radius * std::cos(a), corner.y + radius * std::sin(a)));
            fitConicFromEllipse(record, corner.ellipse, 0, corner.contour);
            corner.conic = record.conic;
            admitRim(std::move(corner), bright, k, markers);
        }
        std::vector<std::size_t> kept;
        for (const RimMarker& marker : markers) kept.push_back(marker.candidate);
        EXPECT_EQ(kept, expected) << what;
    }
}

TEST(ComplexPath, SeesNothingOfAnEarlierImage) {
    CircleMarkerExtractor used, fresh;
    std::vector<std::vector<cv::Point>> candidates;
    const auto smoothed = [&](CircleMarkerExtractor& extractor, cv::Point2d centre) {
        return RimCall(discImage({90, 80}, centre, 8), extractor, 0, rimConfigs()).candidates(extractor, candidates, nullptr).blur16U;
    };
    smoothed(used, {20, 20});
    EXPECT_EQ(cv::norm(smoothed(used, {65, 55}), smoothed(fresh, {65, 55}), cv::NORM_INF), 0);
}

TEST(ComplexPath, BothRoadsGiveTheSameBitsWhereWindowsOverlap) {
    const SharedLoops shared;
    omp_set_num_threads(3);
    cv::RNG rng(12);
    std::size_t found = 0;
    for (int round = 0; round < 210; ++round) {
        cv::Mat image(rng.uniform(20, 250), rng.uniform(20, 250), CV_8UC1, cv::Scalar(90));
        for (int k = rng.uniform(1, 25); k > 0; --k)  // discs, rings and arcs, whose centres may be far off
            cv::ellipse(image, {rng.uniform(0, 250), rng.uniform(0, 250)}, cv::Size(rng.uniform(4, 25), rng.uniform(4, 25)), rng.uniform(0, 180), 0,
                        round % 2 == 0 ? 360 : rng.uniform(60, 360), rng.uniform(0, 256), rng.uniform(-1, 5), cv::LINE_AA);
        CicrleConfigs configs = rimConfigs();
        configs.sigma = round % 4 == 3 ? 5 : 0.65 * (round % 4), configs.scale = 1 + round / 4 % 2, configs.minDiameter = 2,
        configs.maxFitResidual = 1;
        std::array<std::vector<double>, 2> bits;
        for (const bool isPlain : {true, false}) {
            takePlainRoad = isPlain;
            const Found all(image, configs);
            takePlainRoad = false;
            for (const Corner& c : all.corners) {
                bits[isPlain].insert(bits[isPlain].end(), {static_cast<double>(c.id), c.x, c.y, c.fitResidual, c.ellipse.angle});
                for (const cv::Point2f& p : c.contour) bits[isPlain].insert(bits[isPlain].end(), {p.x, p.y});
            }
            found += all.corners.size();
        }
        ASSERT_EQ(bits[0], bits[1]) << round;
    }
    EXPECT_GT(found, 250u);
}

TEST(ComplexPath, ARimWhoseCentreLeavesItsWindowIsJudgedAsInTheWholeImage) {
    cv::RNG rng(4);
    RimScratch scratch;
    std::set<Gate> refused;
    for (int round = 0; round < 300; ++round) {
        const cv::Mat grey =
            imageOf<uchar>({150, 140}, [&, step = rng.uniform(-3, 4)](int x, int) { return 120 + step * (x - 75) + rng.uniform(0, 2); });
        const RimWindows windows(grey, {{5, 5, 60, 50}, {20, 60, 50, 30}}, {1, 3, 0, 1, 0.8f, 1, 0, 0, 0});
        cv::Mat smooth, blur(grey.size(), CV_16UC1, cv::Scalar(0)), grad, dx, dy;
        fastGaussianApprox(grey, smooth, 1);
        for (const std::size_t k : {0u, 1u}) smooth(windows[k]).copyTo(blur(windows[k]));
        float min = 0, max = 0;
        calc_gradient(smooth, grad, dx, dy, min, max);
        const cv::Rect place = windows[0];
        std::vector<cv::Point> arc;
        cv::ellipse2Poly({rng.uniform(0, 150), rng.uniform(0, 140)}, cv::Size(rng.uniform(10, 90), rng.uniform(10, 90)), 0, 0, 360, 1, arc);
        std::erase_if(arc, [&](const cv::Point& p) { return !(place + cv::Point(2, 2) - cv::Size(4, 4)).contains(p); });
        CicrleConfigs configs = rimConfigs();
        configs.minAxisRatio = 0, configs.maxFitResidual = 1e9f;
        const RimVerdict whole = judgeRim(arc, {blur, grad, dx, dy}, RimGates(configs), scratch),
                         part = judgeRim(arc, {blur(place), grad(place), dx(place), dy(place), place.tl(), &windows}, RimGates(configs), scratch);
        ASSERT_EQ(std::tuple(whole.refusedBy, whole.measured), std::tuple(part.refusedBy, part.measured)) << round;
        refused.insert(whole.refusedBy);
    }
    EXPECT_TRUE(refused.contains(Gate::kContrast) && refused.contains(Gate::kHull));
}

TEST(ExplainedPaths, NameTheGateOfEachCandidateAndTheRivalOfOneThatWasMerged) {
    cv::Mat image = rimsImage({260, 160}), colour;
    addDisc(image, {150, 120}, 5, 200, 110);
    cv::ellipse(image, {215, 80}, {30, 9}, 20, 0, 360, 200, -1, cv::LINE_AA);
    image(cv::Rect(20, 60, 3, 60)).setTo(255);
    cv::cvtColor(image, colour, cv::COLOR_GRAY2BGR);
    std::set<std::string> gates;
    for (CicrleConfigs configs : configsOfPaths()) {
        configs.minArea = 150, configs.minDiameter = 6, configs.enableAreaFilter = true;
        CircleMarkerExtractor extractor;
        for (const auto& candidates : {explainExtraction(image, extractor, 0, configs), explainHand(colour, configs), explainFast(image, configs)})
            for (const ExplainedCandidate& candidate : candidates) {
                gates.insert(candidate.gate);
                EXPECT_TRUE(candidate.gate != "merged" || candidate.wanted == "the best fit of ellipses alike to 30 %") << candidate.wanted;
            }
        Findings findings;
        if (configs.useComplexExtract) RimCall(image, extractor, 0, configs).run(extractor, &findings);
        for (const JudgedCandidate& candidate : findings.candidates) {
            const bool isMerged = candidate.outcome == Outcome::kMerged;
            ASSERT_EQ(isMerged, candidate.rival >= 0);
            EXPECT_TRUE(!isMerged || findings.candidates[static_cast<std::size_t>(candidate.rival)].outcome != Outcome::kMerged);
        }
    }
    EXPECT_EQ(gates, (std::set<std::string>{"", "area", "compactness", "eccentricity", "axis ratio", "merged", "size"}));
}

}  // namespace kestrune::test::complex_path
