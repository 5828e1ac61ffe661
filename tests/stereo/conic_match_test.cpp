// SPDX-License-Identifier: Apache-2.0
#include "MarkerExtractor/stereo/conic_match.h"

#include <gtest/gtest.h>

#include <numeric>
#include <random>

#include "support/rigs.h"

namespace kestrune {
namespace {

CicrleConfigs stereoConfigs() {
    CicrleConfigs c{};
    c.maxRowDifference = 2;
    c.minDepth = 300;
    c.maxDepth = 3000;
    c.sizeTolerance = 0.1;
    c.markerRadii = {4, 7};
    c.minRadiusRatio = 0.8f;
    return c;
}

struct Matched {
    std::vector<std::pair<int, int>> pairs;
    std::vector<Point3_<double>> points, normals;
    std::vector<double> radii;
};

Matched match(std::vector<Corner>& left, std::vector<Corner>& right, CircleMarkerExtractor& e, const CicrleConfigs& configs) {
    Matched m;
    m.radii = {1, 2, 3};  // replaced
    matchConicCorners(left, right, m.pairs, m.points, m.normals, m.radii, e, configs);
    EXPECT_TRUE(m.points.size() == m.pairs.size() && m.normals.size() == m.pairs.size() && m.radii.size() == m.pairs.size());
    return m;
}

TEST(SolveCirclePose, GivesBackTheDiscThatWasProjected) {
    const scene::Rig rig = scene::makeVergedRig({1280, 1024});
    Eigen::Matrix3d K;
    K << rig.left.intrinsic(0, 0), 0, rig.left.intrinsic(0, 2), 0, rig.left.intrinsic(1, 1), rig.left.intrinsic(1, 2), 0, 0, 1;
    for (const scene::Disc& disc : scene::makeScatteredDiscs(rig, 30, 8, 30, 50, 200, 9)) {
        const scene::EllipseTruth truth = scene::projectDisc(rig.left, disc);
        Corner corner;
        corner.conic = truth.conic;
        std::vector<cv::Point2f> centres(7);
        const CircleSolution s = solveCirclePose(K, {disc.centre[0], disc.centre[1], disc.centre[2]}, corner, centres);
        EXPECT_NEAR(s.radius / disc.radius, 1, 1e-4);
        ASSERT_EQ(s.normals.size(), 2u);
        ASSERT_EQ(centres.size(), 2u);
        const double agreement[] = {s.normals[0].dot(disc.normal), s.normals[1].dot(disc.normal)};
        const std::size_t k = agreement[1] > agreement[0] ? 1 : 0;
        EXPECT_GT(agreement[k], 1 - 1e-6);
        EXPECT_LT(std::hypot(centres[k].x - truth.projectedCentre.x, centres[k].y - truth.projectedCentre.y), 1e-2);
        for (const auto& n : s.normals) EXPECT_LT(n.dot(disc.centre), 0) << "towards the camera";
    }
    Corner broken;
    broken.conic.fill(NAN);
    std::vector<cv::Point2f> centres;
    EXPECT_THROW(solveCirclePose(K, {0, 0, 1}, broken, centres), std::runtime_error);
}

TEST(SampsonDistance, IsTheSquaredDistanceForARectifiedPair) {
    const cv::Mat rows = (cv::Mat_<double>(3, 3) << 0, 0, 0, 0, 0, -1, 0, 1, 0);
    EXPECT_NEAR(sampsonDistance(rows, {100, 50}, {80, 53}), 9.0 / 2, 1e-9);  // both points move by half
    EXPECT_NEAR(sampsonDistance(rows, {100, 50}, {80, 50}), 0, 1e-12);
    // F x = (3, 1, 5), F^T x' = (2, 4, .), x'^T F x = 2 * 3 + 1 + 5 = 12.
    const cv::Mat general = (cv::Mat_<double>(3, 3) << 1, 1, 0, 0, 0, 1, 0, 2, 1);
    EXPECT_NEAR(sampsonDistance(general, {1, 2}, {2, 1}), 144.0 / (9 + 1 + 4 + 16), 1e-9);
    EXPECT_THROW(sampsonDistance(cv::Mat(), {1, 2}, {3, 4}), cv::Exception);
}

TEST(RectifiedCandidatePairs, KeepsRowsClosedAndDepthsOpen) {
    // Z = 1000 / disparity, X = (x - 100) / disparity.
    const cv::Mat Q = (cv::Mat_<double>(4, 4) << 1, 0, 0, -100, 0, 1, 0, -50, 0, 0, 0, 1000, 0, 0, 1, 0);
    const std::vector<cv::Point2f> left{{120, 60}, {130, 90}};
    const std::vector<cv::Point2f> right{{110, 62}, {110, 58}, {110, 62.001f}, {120, 60}, {100, 60}, {125, 90}, {NAN, NAN}, {110, 60}};
    using Pairs = std::vector<std::pair<int, int>>;
    std::vector<Point3_<double>> points;
    // Of the left point 0: rows 58 to 62 in ascending order, ties by index; no disparity, no candidate; Z 50 is not above 50.
    EXPECT_EQ(rectifiedCandidatePairs(left, right, Q, points, 2, 50, 500), (Pairs{{0, 1}, {0, 7}, {0, 0}, {1, 5}}));
    ASSERT_EQ(points.size(), 4u);
    EXPECT_EQ(points[0].z, 100);
    EXPECT_EQ(points[0].x, 2);
    EXPECT_EQ(points[0].y, 1);
    cv::Mat single;
    Q.convertTo(single, CV_32F);
    EXPECT_EQ(rectifiedCandidatePairs(left, right, single, points, 2, 49.9, 500).size(), 5u);
    EXPECT_TRUE(rectifiedCandidatePairs(left, right, Q, points, 2, NAN, 500).empty());
    EXPECT_TRUE(rectifiedCandidatePairs({{120, 60}}, {{110, 70}, {110, NAN}}, Q, points, 2, 50, 500).empty());
    for (const cv::Mat& bad : {cv::Mat(), cv::Mat(cv::Mat::eye(3, 3, CV_64F)), cv::Mat(cv::Mat::eye(4, 4, CV_32S))}) {
        EXPECT_THROW(rectifiedCandidatePairs(left, right, bad, points, 2, 50, 500), cv::Exception);
    }
}

TEST(MatchConicCorners, RecoversDiscsOfVergedAndStackedRigsInBothFrames) {
    for (scene::Rig rig : {scene::makeVergedRig({1280, 1024}), test::verticalRig()}) {
        CircleMarkerExtractor e;
        test::calibrate(e, rig);
        const bool vertical = e.rightProjection.at<double>(0, 3) == 0;
        for (const bool rectified : {false, true}) {
            if (vertical && rectified) continue;  // the stacked views hardly overlap there
            CircleMarkerExtractor fresh = e;      // the first call decides the camera matrices of the core
            std::vector<Corner> left, right;
            std::vector<scene::Disc> seen;
            const auto discs = scene::makeCurvedObject(rig, 30, 4, 7, 200, 5);
            test::exactCorners(rectified ? test::rectifiedRig(e, rig) : rig, discs, left, right, seen);
            ASSERT_GE(seen.size(), 20u);
            std::vector<int> order(seen.size());
            std::iota(order.begin(), order.end(), 0);
            std::shuffle(order.begin(), order.end(), std::mt19937(3));
            std::vector<Corner> shuffled;
            for (const int k : order) shuffled.push_back(right[static_cast<std::size_t>(k)]);
            CicrleConfigs configs = stereoConfigs();
            configs.cornersRectified = rectified;
            configs.maxRowDifference = vertical ? 2000 : 2;  // rows are no epipolar lines there
            const Matched m = match(left, shuffled, fresh, configs);
            if (vertical) continue;  // depth from a column disparity is none: every row band is wrong, nothing may crash
            ASSERT_EQ(m.pairs.size(), seen.size()) << rectified;
            const cv::Matx33d frame = rectified ? cv::Matx33d(e.leftRectification) : cv::Matx33d::eye();
            for (std::size_t k = 0; k < m.pairs.size(); ++k) {
                const auto& [i, j] = m.pairs[k];
                EXPECT_EQ(i, static_cast<int>(k));
                EXPECT_EQ(order[static_cast<std::size_t>(j)], i);
                const scene::Disc& disc = seen[static_cast<std::size_t>(i)];
                const cv::Vec3d centre = frame * disc.centre, normal = frame * disc.normal;
                EXPECT_LT(cv::norm(cv::Vec3d(m.points[k].x, m.points[k].y, m.points[k].z) - centre), 0.02);
                EXPECT_GT(cv::Vec3d(m.normals[k].x, m.normals[k].y, m.normals[k].z).dot(normal), 1 - 1e-6);
                EXPECT_NEAR(m.radii[k], disc.radius, 1e-3 * disc.radius);
            }
        }
    }
}

TEST(MatchConicCorners, SettlesRivalsAndRejectsWhatIsNoDisc) {
    const scene::Rig rig = scene::makeVergedRig({1280, 1024});
    CircleMarkerExtractor e;
    test::calibrate(e, rig);
    const scene::Disc disc{{5, 8, 900}, {0, 0, -1}, 7, 200};
    scene::Disc tilted = disc;  // a rival on the same place of the left image whose conic agrees less
    tilted.normal = cv::normalize(cv::Vec3d(0.5, 0.3, -1));
    const auto cornersOf = [&rig](const scene::Disc& d) {
        std::vector<Corner> left, right;
        std::vector<scene::Disc> seen;
        test::exactCorners(rig, {d}, left, right, seen);
        return std::pair{left.at(0), right.at(0)};
    };
    const auto [left, right] = cornersOf(disc);
    const Corner rival = cornersOf(tilted).second;
    Corner hyperbola = right, broken = right;
    hyperbola.conic[0] = -hyperbola.conic[0];
    broken.conic[2] = NAN;
    scene::Disc small = disc;
    small.radius = 5.5;
    using Pairs = std::vector<std::pair<int, int>>;
    const struct {
        const char* what;
        std::vector<Corner> left, right;
        Pairs pairs;
    } cases[] = {{"one each", {left}, {right}, {{0, 0}}},
                 {"a rival before", {left}, {rival, right}, {{0, 1}}},
                 {"a rival behind", {left}, {right, rival}, {{0, 0}}},
                 {"an exact tie: the later one takes the record", {left}, {right, right}, {{0, 1}}},
                 {"a hyperbola", {left}, {hyperbola}, {}},
                 {"no nominal radius", {cornersOf(small).first}, {cornersOf(small).second}, {}},
                 {"nobody", {}, {right}, {}}};
    for (const auto& c : cases) {
        auto l = c.left, r = c.right;
        const Matched m = match(l, r, e, stereoConfigs());
        EXPECT_EQ(m.pairs, c.pairs) << c.what;
    }
    // (0, 0) is beaten by (0, 1), which frees the right corner for the left corner that comes later and agrees less.
    std::vector<Corner> two{left, cornersOf(tilted).first}, rivals{rival, right};
    EXPECT_EQ(match(two, rivals, e, stereoConfigs()).pairs, (Pairs{{0, 1}, {1, 0}}));
    CircleMarkerExtractor noBaseline = e, odd = e;
    noBaseline.rightProjection = e.leftProjection;
    odd.triangulationA = Eigen::MatrixXd::Ones(2, 2);
    CicrleConfigs rectified = stereoConfigs();
    rectified.cornersRectified = true;
    rectified.markerRadii.clear();
    rectified.minDepth = -(rectified.maxDepth = 1e9);
    rectified.minRadiusRatio = 0;
    std::vector<Corner> one{left}, other{right};
    EXPECT_THROW(match(one, other, odd, stereoConfigs()), cv::Exception);
    other[0].y = one[0].y;
    EXPECT_THROW(match(one, other, noBaseline, rectified), cv::Exception) << "no epipolar geometry";
    CicrleConfigs anySize = stereoConfigs();
    anySize.markerRadii.clear();
    std::vector<Corner> l{cornersOf(small).first}, r{cornersOf(small).second};
    EXPECT_EQ(match(l, r, e, anySize).pairs.size(), 1u);
    r = {hyperbola};
    EXPECT_TRUE(match(l, r, e, anySize).pairs.empty()) << "a score that is no number leaves no centres";
    r = {broken};
    EXPECT_THROW(match(l, r, e, anySize), std::runtime_error);
    anySize.minRadiusRatio = 1.01f;
    r = {cornersOf(small).second};
    EXPECT_TRUE(match(l, r, e, anySize).pairs.empty());
}

TEST(MatchConicCorners, NamesCalibrationThatIsMissing) {
    CircleMarkerExtractor whole;
    test::calibrate(whole, scene::makeVergedRig({1280, 1024}));
    const struct {
        const char* name;
        cv::Mat CircleMarkerExtractor::*member;
        bool rectified;
    } cases[] = {{"leftIntrinsic", &CircleMarkerExtractor::leftIntrinsic, false},
                 {"rightIntrinsic", &CircleMarkerExtractor::rightIntrinsic, false},
                 {"leftRectification", &CircleMarkerExtractor::leftRectification, false},
                 {"rightRectification", &CircleMarkerExtractor::rightRectification, false},
                 {"leftProjection", &CircleMarkerExtractor::leftProjection, true},
                 {"rightProjection", &CircleMarkerExtractor::rightProjection, true},
                 {"leftTriangulation", &CircleMarkerExtractor::leftTriangulation, false},
                 {"rightTriangulation", &CircleMarkerExtractor::rightTriangulation, true},
                 {"fundamental", &CircleMarkerExtractor::fundamental, false},
                 {"disparityToDepth", &CircleMarkerExtractor::disparityToDepth, false}};
    for (const auto& c : cases) {
        cv::Mat single, integer;
        (whole.*c.member).convertTo(single, CV_32F);
        (whole.*c.member).convertTo(integer, CV_32S);
        for (const cv::Mat& bad : {cv::Mat(), cv::Mat((whole.*c.member).rowRange(0, 2).clone()), single, integer}) {
            if (bad.type() == CV_32F && std::string(c.name) == "disparityToDepth") continue;  // allowed
            CircleMarkerExtractor e = whole;
            e.*c.member = bad;
            CicrleConfigs configs = stereoConfigs();
            configs.cornersRectified = c.rectified;
            std::vector<Corner> left(1), right(1);
            left[0].x = left[0].y = right[0].x = right[0].y = 1;
            try {
                match(left, right, e, configs);
                ADD_FAILURE() << c.name;
            } catch (const cv::Exception& error) {
                EXPECT_EQ(error.code, cv::Error::StsBadArg);
                EXPECT_EQ(error.err.find(c.name), 0u) << error.what();
            }
        }
    }
}

}  // namespace
}  // namespace kestrune
