// SPDX-License-Identifier: Apache-2.0
#include "MarkerExtractor/stereo/conic_match.h"
#include "MarkerExtractor/stereo/index.h"

#include <random>

#include "support/calls.h"
#include "support/rigs.h"
#include "support/verdicts.h"

namespace kestrune::test::conic_match {

CicrleConfigs stereoConfigs(bool rectified = false, std::vector<double> radii = {4, 7}) {
    CicrleConfigs c{};
    c.cornersRectified = rectified, c.markerRadii = std::move(radii);
    c.maxRowDifference = 2, c.minDepth = 300, c.maxDepth = 3000, c.sizeTolerance = 0.1, c.minRadiusRatio = 0.8f;
    return c;
}

struct Matched {
    Pairs pairs;
    std::vector<Point3_<double>> points, normals;
    std::vector<double> radii{1, 2, 3};  // replaced

    Matched(std::vector<Corner> left, std::vector<Corner> right, CircleMarkerExtractor& e, const CicrleConfigs& configs) {
        matchConicCorners(left, right, pairs, points, normals, radii, e, configs);
        EXPECT_TRUE(points.size() == pairs.size() && normals.size() == pairs.size() && radii.size() == pairs.size());
    }
};

TEST(CandidatePairs, KeepRowsClosedAndDepthsOpenAndHaveASampsonDistance) {
    // F x = (3, 1, 5), F^T x' = (2, 4, .), x'^T F x = 2 * 3 + 1 + 5 = 12.
    const cv::Mat general = (cv::Mat_<double>(3, 3) << 1, 1, 0, 0, 0, 1, 0, 2, 1);
    EXPECT_NEAR(sampsonDistance(general, {1, 2}, {2, 1}), 144.0 / (9 + 1 + 4 + 16), 1e-9);
    EXPECT_THROW(sampsonDistance(cv::Mat(), {1, 2}, {3, 4}), cv::Exception);

    // Z = 1000 / disparity, X = (x - 100) / disparity.
    const cv::Mat Q = (cv::Mat_<double>(4, 4) << 1, 0, 0, -100, 0, 1, 0, -50, 0, 0, 0, 1000, 0, 0, 1, 0);
    const std::vector<cv::Point2f> left{{120, 60}, {130, 90}};
    const std::vector<cv::Point2f> right{{110, 62}, {110, 58}, {110, 62.001f}, {120, 60}, {100, 60}, {125, 90}, {NAN, NAN}, {110, 60}};
    std::vector<Point3_<double>> points;
    // Of the left point 0: rows 58 to 62 in ascending order, ties by index; no disparity, no candidate; Z 50 is not above 50.
    EXPECT_EQ(rectifiedCandidatePairs(left, right, Q, points, 2, 50, 500), (Pairs{{0, 1}, {0, 7}, {0, 0}, {1, 5}}));
    ASSERT_EQ(points.size(), 4u);
    EXPECT_EQ(cv::Vec3d(&points[0].x), cv::Vec3d(2, 1, 100));
    cv::Mat single;
    Q.convertTo(single, CV_32F);
    EXPECT_EQ(rectifiedCandidatePairs(left, right, single, points, 2, 49.9, 500).size(), 5u);
    EXPECT_EQ(rectifiedCandidatePairs(left, right, Q * 1.2e-7, points, 2, 51, 500).size(), 3u) << "a weight of 6e-7 is none";
    EXPECT_TRUE(rectifiedCandidatePairs(left, right, Q, points, 2, NAN, 500).empty());
    EXPECT_TRUE(rectifiedCandidatePairs({{120, 60}}, {{110, 70}, {110, NAN}}, Q, points, 2, 50, 500).empty());
    for (const cv::Mat& bad : {cv::Mat(), cv::Mat(cv::Mat::eye(3, 3, CV_64F)), cv::Mat(cv::Mat::eye(4, 4, CV_32S))})
        EXPECT_THROW(rectifiedCandidatePairs(left, right, bad, points, 2, 50, 500), cv::Exception);
}

TEST(MatchConicCorners, RecoversDiscsInBothFrames) {
    const scene::Rig rig = scene::makeVergedRig({1280, 1024});
    for (const bool rectified : {false, true}) {
        CircleMarkerExtractor e = calibrated(rig);
        auto [left, right, seen] = exactCorners(rectified ? rectifiedRig(e, rig) : rig, scene::makeCurvedObject(rig, 30, 4, 7, 200, 5));
        ASSERT_GE(seen.size(), 20u);
        for (std::size_t k = 0; k < seen.size(); ++k) right[k].id = static_cast<int>(k);
        std::shuffle(right.begin(), right.end(), std::mt19937(3));
        const Matched m(left, right, e, stereoConfigs(rectified));
        ASSERT_EQ(m.pairs.size(), seen.size()) << rectified;
        const cv::Matx33d frame = rectified ? cv::Matx33d(e.leftRectification) : cv::Matx33d::eye();
        for (std::size_t k = 0; k < m.pairs.size(); ++k) {
            EXPECT_EQ(asIndex(m.pairs[k].first), k);
            EXPECT_EQ(asIndex(right[asIndex(m.pairs[k].second)].id), k);
            EXPECT_LT(cv::norm(cv::Vec3d(&m.points[k].x) - frame * seen[k].centre), 0.02);
            EXPECT_GT(cv::Vec3d(&m.normals[k].x).dot(frame * seen[k].normal), 1 - 1e-6);
            EXPECT_NEAR(m.radii[k], seen[k].radius, 1e-4 * seen[k].radius);
        }
    }
}

TEST(MatchConicCorners, SettlesRivalsAndRejectsWhatIsNoDisc) {
    const scene::Rig rig = scene::makeVergedRig({1280, 1024});
    CircleMarkerExtractor e = calibrated(rig);
    const auto cornersOf = [&rig](const cv::Vec3d& normal, double radius, double below = 0) {
        const auto [left, right, seen] = exactCorners(rig, {{{5, 8 + below, 900}, cv::normalize(normal), radius, 200}});
        return std::pair{left.at(0), right.at(0)};
    };
    const auto [left, right] = cornersOf({0, 0, -1}, 7);
    const auto [leftRival, rival] = cornersOf({0.5, 0.3, -1}, 7);  // in the same place, but its conic agrees less
    const auto [leftSmall, small] = cornersOf({0, 0, -1}, 5.5);
    // A score is ratio^0.15 |cos|^0.25 exp(-d^4 / 32)^0.3 at a distance of d px from the epipolar line. So 20 degrees, and 1.2 px,
    // count as much as radii with a ratio of 0.902 and of 0.878.
    const double onePixel = 900 / rig.right.intrinsic(1, 1);
    const auto tilted = [&](double angle, double radius) {
        return cornersOf({std::sin(angle), std::sin(angle), -std::sqrt(2) * std::cos(angle)}, radius);
    };
    const auto rightOf = [](const std::pair<Corner, Corner>& corners) { return corners.second; };
    const std::vector<Corner> steep = {tilted(0.3, 7).first};
    const Corner steeper = rightOf(tilted(0.3 + CV_PI / 9, 7)), lower = rightOf(cornersOf({0, 0, -1}, 7, 1.2 * onePixel));
    Corner hyperbola = right, broken = right, level = right;
    hyperbola.conic[0] = -hyperbola.conic[0], level.y = left.y;
    const CicrleConfigs configs = stereoConfigs(), anySize = stereoConfigs(false, {});
    CicrleConfigs unlike = anySize, anyDepth = stereoConfigs(true, {});
    unlike.minRadiusRatio = 1.01f, anyDepth.minRadiusRatio = 0, anyDepth.minDepth = -1e9, anyDepth.maxDepth = 1e9;
    const std::tuple<const char*, std::vector<Corner>, std::vector<Corner>, CicrleConfigs, Pairs> cases[] = {
        {"one each", {left}, {right}, configs, {{0, 0}}},
        {"a rival before", {left}, {rival, right}, configs, {{0, 1}}},
        {"a rival behind", {left}, {right, rival}, configs, {{0, 0}}},
        {"an exact tie: the later one takes the record", {left}, {right, right}, configs, {{0, 1}}},
        {"(0, 1) frees right 0 for the later left one that agrees less", {left, leftRival}, {rival, right}, configs, {{0, 1}, {1, 0}}},
        {"the ratio of radii is worth less than the normals", steep, {steeper, rightOf(tilted(0.3, 0.915 * 7))}, anySize, {{0, 1}}},
        {"and more", steep, {steeper, rightOf(tilted(0.3, 0.9 * 7))}, anySize, {{0, 0}}},
        {"less than the row", {left}, {lower, rightOf(cornersOf({0, 0, -1}, 0.895 * 7))}, anySize, {{0, 1}}},
        {"and more", {left}, {lower, rightOf(cornersOf({0, 0, -1}, 0.875 * 7))}, anySize, {{0, 0}}},
        {"a hyperbola", {left}, {hyperbola}, configs, {}},
        {"a score that is no number leaves no centres", {leftSmall}, {hyperbola}, anySize, {}},
        {"no nominal radius", {leftSmall}, {small}, configs, {}},
        {"any radius will do", {leftSmall}, {small}, anySize, {{0, 0}}},
        {"no two radii are like enough", {leftSmall}, {small}, unlike, {}},
        {"nobody", {}, {right}, configs, {}}};
    for (const auto& [what, l, r, c, pairs] : cases) EXPECT_EQ(Matched(l, r, e, c).pairs, pairs) << what;
    for (const double radius : {3.5, 3.7, 4.3, 4.5, 6.2, 6.4, 7.6, 7.8}) {
        const auto [l, r] = cornersOf({0, 0, -1}, radius);
        EXPECT_EQ(Matched({l}, {r}, e, configs).pairs.size(), std::min(std::abs(radius / 4 - 1), std::abs(radius / 7 - 1)) < 0.1) << radius;
    }

    // Nothing, a line twice, a point, two lines that cross, and two that do not: no marker, but the others stand.
    using Conic = std::array<double, 6>;
    for (const Conic& conic : {Conic{}, {1, 0, 0, -10, 0, 25}, {1, 0, 1, -20, -40, 500}, {0, 1, 0, -4, -3, 12}, {1, 0, 0, 0, 0, -1}}) {
        Corner badLeft = left, badRight = right;
        badLeft.conic = badRight.conic = conic;
        EXPECT_EQ(Matched({badLeft, left}, {right, badRight}, e, anySize).pairs, Pairs({{1, 0}})) << conic[0] << conic[1];
    }
    for (const double value : {kNaN, kInf, -kInf}) {
        for (double& coefficient : broken.conic) {
            const double before = std::exchange(coefficient, value);
            EXPECT_EQ(refused([&, &leftSmall = leftSmall] { Matched({leftSmall}, {broken}, e, anySize); }), "Eigen decomposition failed.") << value;
            coefficient = before;
        }
    }
    std::vector<cv::Point2f> centres(7);  // emptied first
    EXPECT_TRUE(solveCirclePose(e.triangulationA, {5, 8, 900}, left, centres).normals.size() == 2 && centres.size() == 2);
    CircleMarkerExtractor noBaseline = e, odd = e;
    odd.triangulationA = Eigen::MatrixXd::Ones(2, 2), noBaseline.rightProjection = e.leftProjection;
    EXPECT_THROW(Matched({left}, {right}, odd, configs), cv::Exception);
    odd.triangulationD.resize(0, 0);
    EXPECT_EQ(Matched({left}, {right}, odd, configs).pairs.size(), 1u) << "all four are filled anew";
    EXPECT_THROW(Matched({left}, {level}, noBaseline, anyDepth), cv::Exception) << "no epipolar geometry";
}

TEST(MatchConicCorners, TellsWhatEndedEachPair) {
    const scene::Rig rig = scene::makeVergedRig({1280, 1024});
    CircleMarkerExtractor e = calibrated(rig);
    const auto cornersOf = [&rig](const cv::Vec3d& centre, const cv::Vec3d& normal, double radius = 7) {
        const auto [left, right, seen] = exactCorners(rig, {{centre, cv::normalize(normal), radius, 200}});
        return std::pair{left.at(0), right.at(0)};
    };
    const auto [left, right] = cornersOf({5, 8, 900}, {0, 0, -1});
    const auto [leftRival, rival] = cornersOf({5, 8, 900}, {0.5, 0.3, -1});
    const auto [leftBelow, below] = cornersOf({5, 28, 900}, {0, 0, -1});
    // The two centres of this large disc are many pixels apart; those of its chosen normals lie in one row, for a score of 1.
    const auto [leftLarge, rightLarge] = cornersOf({5, 8, 900}, {0.5, -0.4, -0.75}, 90);
    const auto [leftLesser, lesser] = cornersOf({5, 8, 900}, {0.5, -0.4, -0.75}, 81);
    Corner noCircle = right;
    noCircle.conic[5] += 2;
    const CicrleConfigs good = stereoConfigs();
    CicrleConfigs near = good, small = stereoConfigs(false, {6, 4, 9}), unlike = good;
    CicrleConfigs far = small;
    near.maxDepth = 800, unlike.minRadiusRatio = 1.5f, far.sizeTolerance = 0.9, far.markerRadii = {4};
    const double farScore = std::pow(std::exp(-0.5 * 0.75 * 0.75), 0.3);  // of radii that are 75 % off
    using enum PairGate;
    const std::tuple<std::vector<Corner>, std::vector<Corner>, CicrleConfigs, PairVerdicts> cases[] = {
        {{left}, {right}, good, {{0, 0, none}}},
        {{left, leftBelow}, {right, rival}, good, {{0, 1, score, 0.99, 1}, {0, 0, none}, {1, 0, rows, 85.5, -kInf, 2}}},
        {{left}, {right, below, below}, good, {{0, 0, none}, {0, 1, rows, 85.5, -kInf, 2}, {0, 2, rows, 85.5, -kInf, 2}}},
        {{leftLarge}, {lesser, rightLarge}, stereoConfigs(false, {}), {{0, 1, none}, {0, 0, score, std::pow(0.9, 0.15), 1}}},
        {{left}, {right, right}, far, {{0, 0, score, farScore, farScore}, {0, 1, none}}},
        {{left}, {right}, near, {{0, 0, depth, 900, 300, 800}}},
        {{left}, {right}, small, {{0, 0, radius, 7, 5.4, 6.6}}},
        {{left}, {noCircle}, good, {{0, 0, circle}}},
        {{left}, {noCircle}, stereoConfigs(false, {}), {{0, 0, circle}}},
        {{left}, {right}, unlike, {{0, 0, radiusRatio, 1, 1.5}}}};
    for (const auto& [l, r, configs, expected] : cases) {
        std::vector<Corner> leftCorners = l, rightCorners = r;
        PairVerdicts verdicts;
        Pairs found;
        for (const DiscMatch& m : matchDiscs(leftCorners, rightCorners, e, false, conicMatchSettings(configs), &verdicts))
            found.emplace_back(m.left, m.right);
        EXPECT_EQ(found, Matched(l, r, e, configs).pairs);
        EXPECT_EQ(verdicts.size(), expected.size());
        for (const PairVerdict& verdict : expected) expectVerdict(verdicts, verdict);
    }
}

}  // namespace kestrune::test::conic_match
