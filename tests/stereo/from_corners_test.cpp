// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>
#include <omp.h>

#include <cstdio>
#include <cstring>
#include <numeric>

#include "support/calls.h"
#include "support/rigs.h"

namespace kestrune {
namespace {

using test::kInf;
using test::kNaN;
using test::Pairs;
using Places = std::vector<cv::Point2d>;

/// Unit cameras side by side: epipolar lines are rows, and a point lies in front if it is farther left in the right image.
struct Rows {
    cv::Mat pose = (cv::Mat_<double>(3, 4) << 1, 0, 0, -1, 0, 1, 0, 0, 0, 0, 1, 0), leftCamera = cv::Mat::eye(3, 3, CV_64F),
            rightCamera = leftCamera.clone();
    cv::Mat fundamental = (cv::Mat_<double>(3, 3) << 0, 0, 0, 0, 0, 1, 0, -1, 0);
    std::vector<Corner> left, right;
    std::vector<Point3_<double>> points{{7, 8, 9}};
    std::string refused, log;

    Rows(const Places& l, const Places& r) {
        for (const cv::Point2d& p : l) left.emplace_back().x = p.x, left.back().y = p.y;
        for (const cv::Point2d& p : r) right.emplace_back().x = p.x, right.back().y = p.y;
    }
    Pairs match() {
        Pairs pairs;
        testing::internal::CaptureStdout();
        refused = test::refused([&] { pairs = getStereoMarker3dPoints(left, right, pose, leftCamera, rightCamera, fundamental, points); });
        log = testing::internal::GetCapturedStdout();
        return pairs;
    }
};

TEST(FromCorners, PairsByItsRulesWhicheverEyeIsShorter) {
    // Three sure pairs stand before the markers of each case. Lists in which both eyes have as many are not turned round:
    // the search is from the left eye then.
    const Places sure = {{100, 100}, {200, 200}, {150, 300}}, shifted = {{80, 100}, {180, 200}, {130, 300}};
    const struct {
        const char* what;
        Places a, b;
        Pairs pairs;  ///< counted behind the sure ones
    } cases[] = {{"sure ones alone", {}, {}, {}},
                 {"1.5 px is too far", {{50, 50}}, {{40, 51.5}}, {}},
                 {"less is not", {{50, 50}}, {{40, 51.499}}, {{0, 0}}},
                 {"a sure pair behind the cameras", {{50, 50}}, {{60, 50}}, {{0, 0}}},
                 {"two on one", {{50, 0}, {90, 1}}, {{40, 0}, {0, 40}}, {}},
                 {"distances to the sure ones decide", {{50, 0}}, {{10, 0}, {29, 0}}, {{0, 1}}},
                 {"one candidate in front", {{50, 0}}, {{60, 0}, {10, 0}}, {{0, 1}}},
                 {"none in front", {{50, 0}}, {{60, 0}, {70, 0}}, {}},
                 {"position among the kept read among all", {{50, 0}}, {{60, 0}, {10, 0}, {30, 0}}, {{0, 1}}},
                 {"the same at the first place", {{50, 0}}, {{60, 0}, {30, 0}, {10, 0}}, {{0, 0}}},
                 {"identical candidates: the first", {{50, 0}}, {{30, 0}, {30, 0}}, {{0, 0}}},
                 {"identical markers share one", {{50, 0}, {50, 0}}, {{10, 0}, {30, 0}, {5, 90}}, {{0, 1}, {1, 1}}},
                 {"centres that are nowhere", {{kNaN, 0}, {50, kInf}}, {{kNaN, 0}, {-kInf, 0}, {1e300, 1e300}}, {}}};
    for (const auto& c : cases) {
        for (const bool turned : {false, true}) {
            Places a = sure, b = shifted;
            a.insert(a.end(), c.a.begin(), c.a.end()), b.insert(b.end(), c.b.begin(), c.b.end());
            if (turned && a.size() == b.size()) continue;
            Rows rows(turned ? b : a, turned ? a : b);
            if (turned) rows.pose.at<double>(0, 3) = 1;
            Pairs expected = {{0, 0}, {1, 1}, {2, 2}};
            for (const auto& [i, j] : c.pairs) expected.emplace_back(turned ? 3 + j : 3 + i, turned ? 3 + i : 3 + j);
            ASSERT_EQ(rows.match(), expected) << c.what << turned;
            ASSERT_TRUE(rows.log.empty() && rows.refused.empty() && rows.points.size() == expected.size()) << c.what;
            for (std::size_t m = 0; m < expected.size(); ++m) {
                const Corner &l = rows.left[static_cast<std::size_t>(expected[m].first)],
                             &r = rows.right[static_cast<std::size_t>(expected[m].second)];
                const double z = (turned ? -1 : 1) / (l.x - r.x);
                EXPECT_TRUE(l.matched && r.matched && l.position == Eigen::Vector3d(&rows.points[m].x));
                EXPECT_TRUE(l.y != r.y || (l.position - Eigen::Vector3d(l.x * z, l.y * z, z)).norm() < 1e-6) << c.what << m;
                EXPECT_LT((r.position - l.position - Eigen::Vector3d(turned ? 1 : -1, 0, 0)).norm(), 1e-9) << "each eye in its own frame";
            }
        }
    }
    Rows unsure({{50, 0}}, {{10, 0}, {30, 0}}), identical({{50, 0}, {50, 0}}, {{50, 0}, {50, 0}}), apart({{0, 0}}, {{0, 50}});
    EXPECT_EQ(unsure.match(), (Pairs{{0, 0}})) << "nothing sure: the first";
    EXPECT_TRUE(identical.match().empty() && apart.match().empty() && apart.log.empty() && apart.points.size() == 1 && apart.points[0].z == 9);
}

TEST(FromCorners, AnswersBadInput) {
    const std::string line =
        "WARN  MarkerExtractor.cpp:2813   StereoCircleMarkerExtractor: Please check the left eye camera or right eye camera, failed to extract "
        "Marker "
        "Points.\n";
    for (Rows rows : {Rows({}, {{0, 1}}), Rows({{1, 1}}, {}), Rows({}, {})}) {
        rows.fundamental.release();
        EXPECT_TRUE(rows.match().empty() && rows.points.size() == 1 && rows.refused.empty());
        EXPECT_TRUE(rows.log.size() > line.size() && rows.log.substr(rows.log.size() - line.size()) == line) << rows.log;
    }
    const int cube[] = {3, 3, 4};
    const std::pair<cv::Mat Rows::*, const char*> arguments[] = {
        {&Rows::pose, "relativePose"}, {&Rows::leftCamera, "leftCamera"}, {&Rows::rightCamera, "rightCamera"}, {&Rows::fundamental, "fundamental"}};
    for (const auto& [argument, name] : arguments) {
        for (const cv::Mat& bad :
             {cv::Mat(), cv::Mat(2, 3, CV_64F), cv::Mat(4, 4, CV_64F), cv::Mat(3, cube, CV_64F), cv::Mat(3, 3, CV_32S), cv::Mat(3, 4, CV_32F)}) {
            Rows rows({{1, 1}}, {{0, 1}});
            rows.*argument = bad;
            EXPECT_TRUE(rows.match().empty() && rows.points.size() == 1 && !rows.left[0].matched && rows.refused == name) << name << rows.refused;
        }
        Rows nowhere({{1, 1}, {2, 1}}, {{0, 1}, {1, 1}, {9, 9}});
        (nowhere.*argument).setTo(kNaN);
        EXPECT_TRUE(nowhere.match().empty() && nowhere.refused.empty()) << name;
    }
    Rows single({{1, 1}}, {{0, 1}});
    single.fundamental.convertTo(single.fundamental, CV_32F);
    EXPECT_EQ(single.match().size(), 1u);
}

TEST(FromCorners, MatchesNoisyMarkersForAnyNumberOfThreads) {
    const scene::Rig rig = scene::makeVergedRig({2448, 2048});
    CircleMarkerExtractor e = test::calibrated(rig);
    const cv::Matx33d F(e.fundamental);
    const int threads = omp_get_max_threads();
    for (const double missing : {0.0, 0.1}) {
        int sure = 0, sureWrong = 0, settled = 0, settledWrong = 0;
        for (std::uint64_t seed = 1; seed <= 40; ++seed) {
            // True ellipse centres with 0.1 px of noise in each coordinate; the right list in another order.
            std::vector<Corner> corners[2];
            std::vector<std::size_t> id[2], order(60);
            const auto [seenLeft, seenRight, discs] = test::exactCorners(rig, scene::makeCurvedObject(rig, 60, 1.5, 2.5, 190, seed));
            ASSERT_EQ(discs.size(), order.size());
            std::iota(order.begin(), order.end(), 0);
            cv::RNG rng(seed);
            for (const int eye : {0, 1}) {
                for (const std::size_t k : order) {
                    Corner c = (eye == 0 ? seenLeft : seenRight)[k];
                    c.x += rng.gaussian(0.1), c.y += rng.gaussian(0.1);
                    if (rng.uniform(0.0, 1.0) >= missing) corners[eye].push_back(c), id[eye].push_back(k);
                }
                for (unsigned k = 60; k > 1; --k) std::swap(order[k - 1], order[rng(k)]);
            }
            const std::vector<Corner> left = corners[0], right = corners[1];
            std::vector<Point3_<double>> points, again;
            const auto match = [&](int team, std::vector<Point3_<double>>& out) {
                omp_set_num_threads(team);
                return getStereoMarker3dPoints(corners[0], corners[1], e.leftTriangulation, e.leftIntrinsic, e.rightIntrinsic, e.fundamental, out);
            };
            const Pairs pairs = match(1, points);
            ASSERT_EQ(match(static_cast<int>(2 + seed % 3), again), pairs);
            ASSERT_EQ(std::memcmp(points.data(), again.data(), sizeof(points[0]) * points.size()), 0);

            const bool fromLeft = left.size() <= right.size();
            const auto near = [&](const Corner& l, const Corner& r) {
                const cv::Vec3d x(l.x, l.y, 1), y(r.x, r.y, 1), epipolar = fromLeft ? F * x : F.t() * y;
                return std::abs(epipolar.dot(fromLeft ? y : x)) / std::hypot(epipolar[0], epipolar[1]) < 1.5;
            };
            for (std::size_t m = 0; m < pairs.size(); ++m) {
                const auto i = static_cast<std::size_t>(pairs[m].first), j = static_cast<std::size_t>(pairs[m].second);
                const bool isSure = std::count_if(right.begin(), right.end(), [&](const Corner& r) { return near(left[i], r); }) == 1 &&
                                    std::count_if(left.begin(), left.end(), [&](const Corner& l) { return near(l, right[j]); }) == 1;
                const bool isWrong = id[0][i] != id[1][j];
                (isSure ? sure : settled) += 1;
                (isSure ? sureWrong : settledWrong) += isWrong;
                EXPECT_TRUE(isWrong || cv::norm(cv::Vec3d(&points[m].x) - discs[id[0][i]].centre) < 0.4) << seed;
            }
        }
        std::printf("%3.0f %% missing in each eye: %d sure pairs (%d wrong), %d settled (%d wrong)\n", 100 * missing, sure, sureWrong, settled,
                    settledWrong);
        EXPECT_TRUE(sure > 1500 && settled > 100 && settledWrong < 0.05 * settled && (missing > 0 || sureWrong == 0));
    }
    omp_set_num_threads(threads);
}

}  // namespace
}  // namespace kestrune
