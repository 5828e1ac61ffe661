// SPDX-License-Identifier: Apache-2.0
#include "MarkerExtractor/stereo/rectified_match.h"
#include "MarkerExtractor/stereo/index.h"

#include <algorithm>
#include <cstring>
#include <opencv2/imgproc.hpp>

#include "MarkerExtractor/stereo/fallback.h"
#include "kestrune/MarkerExtractor/stereo.h"
#include "support/calls.h"
#include "support/teams.h"
#include "support/verdicts.h"

namespace kestrune::test::rectified_match {

const std::vector<cv::Point2f> kContour = {{6, 14}, {4, 16}, {3, 20}, {3.5, 24}, {6, 26}, {14, 15}, {17, 20}, {17.5, 21}, {15, 25}, {12, 27}};

Corner cornerOf(double x, double y, std::vector<cv::Point2f> contour) {
    Corner corner;
    corner.x = x, corner.y = y, corner.area = contour.size() < 3 ? 0.0 : cv::contourArea(contour);
    corner.contour = std::move(contour);
    return corner;
}

TEST(RectifiedMatch, TakesSamplesFromTheContour) {
    const Samples expected{{{10.25, 20.5}, {3.25, 22}, {17.25, 20.5}, {8, 15}, {11, 26}, {3.5, 20}, {16.5, 22}}};
    Samples narrowed = expected;  // in single precision this is the row of (3, 20) and (17, 20)
    narrowed[kCentre].y = 20 + 1e-9, narrowed[kRowLeft] = {3.5, 18}, narrowed[kRowRight] = {15.5, 17.5};
    for (int turn = 0; turn < 10; ++turn) {
        std::vector<cv::Point2f> contour = kContour;
        std::rotate(contour.begin(), contour.begin() + turn, contour.end());
        EXPECT_EQ(samplePoints(cornerOf(10.25, 20.5, contour)), expected);
        EXPECT_EQ(samplePoints(cornerOf(10.25, 20 + 1e-9, contour)), narrowed);
        contour[0].x = turn % 2 ? static_cast<float>(kNaN) : static_cast<float>(kInf);
        EXPECT_FALSE(samplePoints(cornerOf(10.25, 20.5, contour)));
    }
    const double outside[][2] = {{10, 14}, {10, 15}, {10, 26.5}, {3, 20}, {18, 20}, {kNaN, 20}, {10, kNaN}, {kInf, 20}, {10, -kInf}, {1e300, 20}};
    for (const auto& c : outside) EXPECT_FALSE(samplePoints(cornerOf(c[0], c[1], kContour))) << c[0] << ' ' << c[1];
    for (const int n : {0, 1, 2}) EXPECT_FALSE(samplePoints(cornerOf(5, 15, {kContour.begin(), kContour.begin() + n})));
}

TEST(RectifiedMatch, ComparesAreasAndRows) {
    const double areas[][4] = {{1, 1, 0.25, 1}, {76, 100, 0.25, 1}, {75, 100, 0.25, 0}, {100, 75, 0.25, 0},    {100, 76, -0.25, 1}, {5, 5, 0, 0},
                               {0, 0, 0.25, 0}, {kNaN, 5, 0.25, 0}, {5, kNaN, 0.25, 0}, {kInf, kInf, 0.25, 0}, {5, kInf, 1.5, 0}};
    for (const auto& c : areas) EXPECT_EQ(areasAgree(c[0], c[1], c[2]), c[3]) << testing::PrintToString(c);
    // Differences of centre, top and bottom, then row band, slack, result. Line by line: the band; opposite sense at top
    // and bottom, within the slack or not; one vote, three by the slack, which is exclusive; two votes by the slack;
    // products that vanish in single precision and have no sense.
    const double rows[][6] = {{0.99, 0.99, 0.99, 1, 1, 1}, {1, 1, 1, 1, 1, 0},          {0, 3.9, 0, 4, 1, 1},  {0, 4, 0, 4, 1, 0},
                              {0, 0, 4, 4, 1, 0},          {0, 0, 0, -1, 1, 0},         {0, 3, -3, 4, 1, 0},   {0, 3, -3, 4, 3, 1},
                              {-0.5, 0.4, -3, 4, 0.8, 0},  {kNaN, 0, 0, 4, 1, 0},       {0, kNaN, 0, 4, 1, 0}, {0, 0, 0, kNaN, 1, 0},
                              {2, -1, -1, 4, 1, 0},        {-2, 1, -1, 4, 1, 0},        {2, -1, -1, 4, 3, 0},  {2, -1, -1, 4, 3.1, 1},
                              {-0.5, 0.4, -3, 4, 1, 1},    {2, -1e-50, -1e-50, 4, 1, 1}};
    for (const auto& c : rows) {
        Samples left{}, right{};
        left[kCentre].y = c[0], left[kTop].y = c[1], left[kBottom].y = c[2];
        EXPECT_EQ(rowsAgree(left, right, c[3], c[4]), c[5]) << testing::PrintToString(c);
    }
    // With the loose gate the slack is half the row band, here 5, and 2 at least. Every size passes.
    RectifiedRig rig{cv::Matx34d::eye(), cv::Matx34d::eye(), cv::Matx33d::eye()};
    rig.rightProjection(0, 3) = -1;
    for (const auto& [band, stray, isPair] : {std::tuple(10, 4.9, true), {10, 5.1, false}, {3, 1.9, true}, {3, 2.1, false}}) {
        const PairGates gates(rig, {{{1.0 * band, 0, 1e6}, {1e6}, 1e6}, false, true, false, 1, {}});
        const RectifiedMarker left{{2, 0}, 1, Samples{{{2, 0}, {1, 0}, {3, 0}, {2, -1}, {2, 1}, {1, 0}, {3, 0}}}, {}};
        RectifiedMarker right = left;
        for (cv::Point2d& p : *right.samples) p.x -= 1;
        (*right.samples)[kTop].y += stray, (*right.samples)[kBottom].y -= stray;
        EXPECT_EQ(gates.candidateOf(left, right).has_value(), isPair) << band << ' ' << stray;
    }
}

TEST(RectifiedMatch, JudgesTheSizeInSpace) {
    for (const double outlier : {100.0, kNaN}) {  // of the distances 1 to 5 and this one, 2 to 5 count
        const auto [radius, spread] = markerSize({cv::Vec3d(1, 1, 1), {1, 1, 6}, {1, 4, 1}, {1, outlier, 1}, {3, 1, 1}, {1, 1, 2}, {1, -3, 1}});
        EXPECT_EQ(cv::Vec2d(radius, spread), cv::Vec2d(3.5, std::sqrt(1.25)));
    }
    // Plain 1, loose 2 and score gate 4, radius, spread, result: at the bounds of nominal radius 5, which are 4.375, 9 and 9.75,
    // 3.75 and 6.25, a spread of 1 and a score of 4.
    const double cases[][4] = {{1, 4.375, 0, 0},     {3, 4.376, 0, 1},  {1, 8.999, 99, 1}, {3, 9, 0, 0},     {1, kNaN, 0, 0},  {5, 4.375, 0, 0},
                               {7, 4.376, 0, 1},     {5, 9.749, 99, 1}, {7, 9.75, 0, 0},   {4, kNaN, 0, 0},  {6, 4.374, 0, 0}, {6, 4.375, 0, 1},
                               {6, 9.75, 0, 1},      {6, 9.751, 0, 0},  {6, 5, 0.999, 1},  {6, 5, 1, 0},     {2, 4.375, 0, 0}, {2, 4.376, 0, 1},
                               {2, 8.999, 0.999, 1}, {2, 9, 0, 0},      {2, 5, 1, 0},      {2, 5, kNaN, 0},  {4, 0, 0, 0},     {4, 0.01, 0, 1},
                               {4, 9.999, 0, 1},     {4, 10, 0, 0},     {4, 5, 0.999, 1},  {4, 7.5, 0.5, 0}, {0, 3.75, 0, 0},  {0, 3.751, 0.999, 1},
                               {0, 6.249, 0, 1},     {0, 6.25, 0, 0},   {0, 5, 1, 0},      {0, kInf, 0, 0}};
    for (const auto& c : cases) {
        const int gates = static_cast<int>(c[0]);
        const auto passes = [&](const std::vector<double>& radii) {
            const bool plain = gates & 1, loose = gates & 2, score = gates & 4;
            return SizeGate({{{}, radii, 0.25}, score, loose, plain, 4, {}}).passes({c[1], c[2]});
        };
        for (const double other : {-kInf, 0.0, kNaN}) {
            EXPECT_EQ(passes({other, 5, kNaN}), c[3]) << testing::PrintToString(c);
            EXPECT_FALSE(passes({other}));
        }
    }
}

std::vector<PairCandidate> candidatesOf(const std::vector<int>& partners, const std::vector<double>& radii = {}) {
    std::vector<PairCandidate> candidates;
    for (std::size_t k = 0; k < std::max(partners.size(), radii.size()); ++k)
        candidates.push_back({k < partners.size() ? partners[k] : 0, {}, k < radii.size() ? radii[k] : 5});
    return candidates;
}

RectifiedMarker markerOf(const std::vector<int>& partners) {
    return {{}, 0, {}, candidatesOf(partners)};
}

TEST(RectifiedMatch, TrimsCandidatesByTheRadius) {
    using Radii = std::vector<double>;
    using Positions = std::vector<int>;
    // Nominal radii 5, 5 and 10, with a band from 0.5 below, inclusive, to 0.5 above, exclusive.
    const auto marked = [](const Radii& radii) { return surplusPositions(candidatesOf({}, radii), {-1, 0, 5, 5, 10, kNaN}, 0.5); };
    EXPECT_EQ(
        (std::vector{marked({4.8, 4.9, 5, 5.1, 5.2}), marked({5, 5.1, 5.2, 5.3}), marked({1, 5, 5.1, 5.2}), marked({4.6, 4.7, 4.8}),
                     marked({1, 4.6, 4.7, 4.8}), marked({1, 2, 4.6, 5, 5.1}), marked({1, 5, 5.1}), marked({4.5, 5, 5.5}), marked({4.5, 4.6, 5})}),
        (std::vector<Positions>{{4, 3, 0}, {3, 2}, {3}, {0}, {1, 0}, {4, 1, 0}, {}, {}, {0}}));
    EXPECT_EQ(surplusPositions(candidatesOf({}, {4.8, 5, 5.2, 9.8, 10, 10.2}), {5, 10}, 0.5), (Positions{2, 5, 2, 1, 0}));
    const std::pair<Positions, Positions> erasures[] = {{{}, {0, 1, 2, 3, 4}},     {{2, 0}, {1, 2, 4}},       {{4, 3, 3}, {0, 1, 2, 4}},
                                                        {{1, 1, 4}, {0, 2, 3, 4}}, {{0, 1, 2, 3, 4}, {1, 3}}, {{99}, {0, 1, 2, 3, 4}}};
    for (const auto& [positions, left] : erasures) {
        std::vector<PairCandidate> candidates = candidatesOf({0, 1, 2, 3, 4});
        eraseCandidates(candidates, positions);
        EXPECT_TRUE(std::ranges::equal(candidates, left, {}, &PairCandidate::partner)) << testing::PrintToString(positions);
    }

    const std::vector<RectifiedMarker> left = {markerOf({0, 1}), markerOf({2}), markerOf({}), markerOf({0}), markerOf({1})};
    Pairs pairs;
    for (const PlacedPair& p : uniquePairs(left, {markerOf({3}), markerOf({0, 4}), markerOf({7})})) pairs.emplace_back(p.left, p.right);
    EXPECT_EQ(pairs, (Pairs{{1, 2}, {3, 0}}));
}

/// A rectified rig and tilted discs of two radii in space; the right list runs backwards.
struct Exposure {
    std::vector<Corner> left, right;
    std::vector<cv::Vec3d> truth;
    std::vector<Point3_<double>> points;
    std::vector<double> radii{5, 3};
    cv::Mat rotation = cv::Mat::eye(3, 3, CV_64F), leftProjection = (cv::Mat_<double>(3, 4) << 2e3, 0, 1e3, 0, 0, 2e3, 800, 0, 0, 0, 1, 0);
    cv::Mat rightProjection = leftProjection.clone();
    double minDepth = 500, maxDepth = 1500, tolerance = 0.3;

    explicit Exposure(int count) {
        rightProjection.at<double>(0, 3) = -4e5;
        for (int i = 0; i < count; ++i) {
            truth.emplace_back(600 * std::fmod(0.7549 * i, 1) - 250, 560 * std::fmod(0.5698 * i, 1) - 280, 1000 + 12 * std::sin(3 * i));
            left.push_back(view(leftProjection, i));
            right.insert(right.begin(), view(rightProjection, i));
        }
    }
    Corner view(const cv::Matx34d& camera, int i) const {
        std::vector<cv::Point2d> image;
        for (int k = 0; k <= 90; ++k) {
            const double r = k == 90 ? 0 : i % 2 ? 3 : 5, u = r * std::cos(k * CV_PI / 45), v = r * std::sin(k * CV_PI / 45);
            const cv::Vec3d p = truth.back(), h = camera * cv::Vec4d(p[0] + 0.95 * u, p[1] + 0.9 * v, p[2] + 0.31 * u * std::cos(i) + 0.44 * v, 1);
            image.emplace_back(h[0] / h[2], h[1] / h[2]);
        }
        return cornerOf(image[90].x, image[90].y, {image.begin(), image.end() - 1});
    }
    Pairs match(int gates) {
        return getStereoRectifiedMarker3dPoints(left, right, radii, points, rotation, leftProjection, rightProjection, 2.0, minDepth, maxDepth,
                                                gates & 1, gates & 2, tolerance, 2, gates & 4, 0.3, 0.3);
    }
    /// Number of pairs, or the argument that an exception names; then the warning, without its file.
    std::string outcome(int gates) {
        std::string result;
        const auto count = [&] { result = std::to_string(match(gates).size()); };
        const std::string warning = warningsOf([&] { result += refused(count); });
        EXPECT_TRUE(points.empty() || result == std::to_string(points.size()));
        return warning.empty() ? result : warning.substr(warning.find(':') + 1);
    }
};

TEST(RectifiedMatch, PlacesDiscsInSpaceForAnyNumberOfThreads) {
    const cv::Matx33d turn(0.36, 0.48, -0.8, -0.8, 0.6, 0, 0.48, 0.64, 0.6);
    const SharedLoops shared;
    std::vector<Point3_<double>> reference[16];
    for (int run = 0; run < 64; ++run) {  // the eight gates, two markers (left to the fallback) and forty, four numbers of threads
        const int count = run & 8 ? 40 : 2;
        Exposure e(count);
        e.rotation = cv::Mat(turn, true), e.points = {{7, 8, 9}};
        omp_set_num_threads(1 << (run >> 4));
        const Pairs pairs = e.match(run & 7);
        ASSERT_TRUE(static_cast<int>(pairs.size()) == count && e.points.size() == pairs.size() + 1 && e.points[0].z == 9) << run;
        for (int k = 0; k < count; ++k)
            EXPECT_TRUE(pairs[asIndex(k)] == std::pair(k, count - 1 - k) &&
                        cv::norm(cv::Vec3d(&e.points[asIndex(k + 1)].x) - turn.t() * e.truth[asIndex(k)]) < 1e-8)
                << run;
        if (run < 16) reference[run] = e.points;
        EXPECT_EQ(std::memcmp(e.points.data(), reference[run % 16].data(), sizeof(e.points[0]) * e.points.size()), 0) << run;
    }
}

TEST(RectifiedMatch, KeepsWhatIsBeyondDoubtWithoutAConstellation) {
    Exposure e(0);
    e.tolerance = 0.1, e.radii = {9, 5};  // are put in order, or nothing would be trimmed by the second
    const auto add = [&e](std::vector<Corner>& corners, cv::Mat camera, double x, double shift) {
        camera.at<double>(0, 2) += shift;
        e.truth.assign(1, {x, 0, 1000});
        corners.push_back(e.view(camera, 0));
    };
    for (const double x : {0, -21}) add(e.left, e.leftProjection.clone(), x, 0);
    // Three right markers give left 0 the radii 5.09, 5.04 and 4.96; the second in the list, which is left 1's, gives it
    // 4.53. This one and the first are surplus, but only this one goes from left 0: the other has moved up by then.
    for (const auto& [x, shift] : {std::pair(0, 6), {-21, 0}, {0, 2}, {0, -4}}) add(e.right, e.rightProjection.clone(), x, shift);
    EXPECT_EQ(e.match(0), (Pairs{{1, 1}}));
    ASSERT_EQ(e.points.size(), 1u);
    EXPECT_NEAR(e.points[0].x, -21, 1e-8);
}

PairVerdicts judged(const Exposure& e, int gates) {
    const bool score = gates & 1, loose = gates & 2, plain = gates & 4;
    PairVerdicts verdicts;
    matchRectified(e.left, e.right, {e.leftProjection, e.rightProjection, cv::Matx33d(e.rotation).inv()},
                   {{{2, e.minDepth, e.maxDepth}, e.radii, e.tolerance}, score, loose, plain, 2, {0.3, 0.3}}, &verdicts);
    return verdicts;
}

TEST(RectifiedMatch, TellsWhatEndedEachPair) {
    using enum PairGate;
    using E = Exposure;
    // Of the first left marker, which is of radius 5, and its right one, the second.
    const std::tuple<int, PairVerdict, void (*)(E&)> cases[] = {
        {4, {0, 1, none}, [](E&) {}},
        {4, {0, 1, rows, 3, -kInf, 2}, [](E& e) { e.right[1].y += 3; }},
        {4, {0, 1, area, 0.5, 0.7}, [](E& e) { e.right[1].area = 0.5 * e.left[0].area; }},
        {0,
         {0, 1, rimRows, 1.5, -kInf, 1},
         [](E& e) {
             for (cv::Point2f& p : e.right[1].contour) p.y += p.y > e.right[1].y ? 1.5f : -1.5f;
         }},
        {4, {0, 1, depth, 1000, 500, 900}, [](E& e) { e.maxDepth = 900; }},
        {4, {0, 1, depth, 1000, kNaN, 1500}, [](E& e) { e.minDepth = kNaN; }},
        {4, {0, 1, outline}, [](E& e) { e.right[1].contour.clear(); }},
        {4,
         {0, 1, radius, 5, 6.8, 14.4},
         [](E& e) {
             e.radii = {1, 8, 20};
         }},
        {0, {0, 1, radius, 5, 5.6, 10.4}, [](E& e) { e.radii = {8}; }},
        {0, {0, 1, spread, 0.0661, -kInf, 0.002}, [](E& e) { e.tolerance = 0.001, e.right[1].area = e.left[0].area; }},
        {1, {0, 1, radiusScore, 3.13, -kInf, 2}, [](E& e) { e.radii = {40}; }},
        {4, {0, -1, outline}, [](E& e) { e.left[0].contour.clear(); }}};
    for (const auto& [gates, expected, change] : cases) {
        E e(2);
        change(e);
        expectVerdict(judged(e, gates), expected);
    }
    // Twins of one marker in each eye, without and with a constellation to tell them apart.
    E pair(2), many(40);
    for (E* e : {&pair, &many}) {
        e->right.push_back(e->right.back());
        for (cv::Point2f& p : e->right.back().contour) p.x += 6;
        e->right.back().x += 6;
    }
    const SharedLoops shared;
    expectVerdict(judged(pair, 4), {0, 2, ambiguous, 2, -kInf, 1});
    PairVerdicts reference;
    for (const int threads : {1, 2, 5}) {
        omp_set_num_threads(threads);
        const PairVerdicts told = judged(many, 4);
        expectVerdict(told, {0, 40, taken});
        if (threads == 1) reference = told;
        ASSERT_EQ(told.size(), reference.size());
        for (std::size_t k = 0; k < told.size(); ++k) expectVerdict(told, reference[k], 0);
    }
}

TEST(RectifiedMatch, AnswersBadInput) {
    const std::string lists = "StereoCircleMarkerExtractor: Please check the left eye camera or right eye camera, failed to extract Marker Points.\n";
    const std::string radii = "3184   Wrong Parameter: Please check the radius of circular marker.\n";
    using E = Exposure;
    const std::pair<std::string, std::vector<void (*)(E&)>> cases[] = {
        {"3168   " + lists, {[](E& e) { e.left.clear(); }, [](E& e) { e.right.clear(), e.radii.clear(), e.rotation.release(); }}},
        {radii, {[](E& e) { e.radii.clear(), e.rotation.release(); }, [](E& e) { e.radii.assign(3, kNaN), e.radii[1] = -1, e.radii[2] = 0; }}},
        // Behind the cameras; without a baseline; without a contour.
        {"0",
         {[](E& e) { e.minDepth = -1e9, std::swap(e.left, e.right); }, [](E& e) { e.rightProjection = e.leftProjection; },
          [](E& e) { e.leftProjection = kNaN; }, [](E& e) { e.left[0].contour.resize(2), e.right[0].contour.clear(); },
          [](E& e) { e.radii.assign(1, 50); }, [](E& e) { e.tolerance = 0; }, [](E& e) { e.tolerance = kNaN; }, [](E& e) { e.minDepth = kNaN; },
          [](E& e) { e.maxDepth = kNaN; }, [](E& e) { e.minDepth = 1100; }, [](E& e) { e.maxDepth = 900; }}},
        // The last two are apart by just the row band.
        {"1",
         {[](E& e) { e.left[0].x = kNaN; }, [](E& e) { e.left[1].area = kNaN; }, [](E& e) { e.right[0].y += 400; },
          [](E& e) { e.left[0].y = 242, e.right[1].y = 240; }}},
        {"2",
         {[](E& e) { e.radii.insert(e.radii.begin(), kNaN), e.radii.push_back(0); },
          [](E& e) { cv::Mat(e.leftProjection).convertTo(e.leftProjection, CV_32F); }}}};
    for (const auto& [expected, changes] : cases) {
        for (std::size_t run = 0; run < 8 * changes.size(); ++run) {
            Exposure e(2);
            changes[run / 8](e);
            EXPECT_EQ(e.outcome(static_cast<int>(run % 8)), expected) << run;
        }
    }
    for (const int gates : {0, 1, 2, 3}) {  // centre and contour move apart: within the slack of the loose gate only
        Exposure e(2);
        e.right[1].y -= 0.6;
        for (cv::Point2f& p : e.right[1].contour) p.y += 0.6f;
        EXPECT_EQ(e.outcome(gates), gates < 2 ? "1" : "2");
    }
}

}  // namespace kestrune::test::rectified_match
