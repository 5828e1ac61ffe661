// SPDX-License-Identifier: Apache-2.0
#include <random>

#include "MarkerExtractor/stereo/index.h"
#include "support/calls.h"
#include "support/rigs.h"
#include "support/teams.h"

namespace kestrune::test::from_corners {

using Places = std::vector<cv::Point2d>;

/// Unit cameras side by side: epipolar lines are rows, and a point lies in front if it is farther left in the right image.
struct Rows {
    cv::Mat pose = (cv::Mat_<double>(3, 4) << 1, 0, 0, -1, 0, 1, 0, 0, 0, 0, 1, 0), leftCamera = cv::Mat::eye(3, 3, CV_64F),
            rightCamera = leftCamera.clone();
    cv::Mat fundamental = (cv::Mat_<double>(3, 3) << 0, 0, 0, 0, 0, 1, 0, -1, 0);
    std::vector<Corner> left, right;
    std::vector<Point3_<double>> points{{7, 8, 9}};
    std::string refusal, log;

    Rows(const Places& l, const Places& r) {
        for (const cv::Point2d& p : l) left.emplace_back().x = p.x, left.back().y = p.y;
        for (const cv::Point2d& p : r) right.emplace_back().x = p.x, right.back().y = p.y;
    }
    Pairs match() {
        Pairs pairs;
        const auto call = [&] { pairs = getStereoMarker3dPoints(left, right, pose, leftCamera, rightCamera, fundamental, points); };
        log = warningsOf([&] { refusal = refused(call); });
        return pairs;
    }
};

TEST(FromCorners, PairsByItsRulesWhicheverEyeIsShorter) {
    // Three sure pairs stand before the markers of each case. Lists in which both eyes have as many are not turned round:
    // the search is from the left eye then.
    const Places sure = {{100, 100}, {200, 200}, {150, 300}}, shifted = {{80, 100}, {180, 200}, {130, 300}};
    const std::tuple<const char*, Places, Places, Pairs> cases[] = {
        // pairs counted behind the sure ones
        {"sure ones alone", {}, {}, {}},
        {"1.5 px is too far", {{50, 50}}, {{40, 51.5}}, {}},
        {"less is not", {{50, 50}}, {{40, 51.499}}, {{0, 0}}},
        {"a sure pair behind the cameras", {{50, 50}}, {{60, 50}}, {{0, 0}}},
        {"two on one", {{50, 0}, {90, 1}}, {{40, 0}, {0, 40}}, {}},
        {"distances to the sure ones decide", {{50, 0}}, {{10, 0}, {29, 0}}, {{0, 1}}},
        {"by the root of the squares, 1.25 and 1.44; the sums are 2.15 and 1.88", {{50, 0}}, {{34, -1.3}, {31, 0.3}}, {{0, 1}}},
        {"one candidate in front", {{50, 0}}, {{60, 0}, {10, 0}}, {{0, 1}}},
        {"none in front", {{50, 0}}, {{60, 0}, {70, 0}}, {}},
        {"position among the kept read among all", {{50, 0}}, {{60, 0}, {10, 0}, {30, 0}}, {{0, 1}}},
        {"the same at the first place", {{50, 0}}, {{60, 0}, {30, 0}, {10, 0}}, {{0, 0}}},
        {"identical candidates: the first", {{50, 0}}, {{30, 0}, {30, 0}}, {{0, 0}}},
        {"identical markers share one", {{50, 0}, {50, 0}}, {{10, 0}, {30, 0}, {5, 90}}, {{0, 1}, {1, 1}}},
        {"centres that are nowhere", {{kNaN, 0}, {50, kInf}}, {{kNaN, 0}, {-kInf, 0}, {1e300, 1e300}}, {}}};
    for (const auto& [what, moreA, moreB, pairs] : cases) {
        for (const bool turned : {false, true}) {
            Places a = sure, b = shifted;
            a.insert(a.end(), moreA.begin(), moreA.end()), b.insert(b.end(), moreB.begin(), moreB.end());
            if (turned && a.size() == b.size()) continue;
            Rows rows(turned ? b : a, turned ? a : b);
            if (turned) rows.pose.at<double>(0, 3) = 1;
            Pairs expected = {{0, 0}, {1, 1}, {2, 2}};
            for (const auto& [i, j] : pairs) expected.emplace_back(turned ? 3 + j : 3 + i, turned ? 3 + i : 3 + j);
            ASSERT_EQ(rows.match(), expected) << what << turned;
            ASSERT_TRUE(rows.log.empty() && rows.refusal.empty() && rows.points.size() == expected.size()) << what;
            for (std::size_t m = 0; m < expected.size(); ++m) {
                const Corner &l = rows.left[asIndex(expected[m].first)], &r = rows.right[asIndex(expected[m].second)];
                const double z = (turned ? -1 : 1) / (l.x - r.x);
                EXPECT_TRUE(l.matched && r.matched && l.position == Eigen::Vector3d(&rows.points[m].x));
                EXPECT_TRUE(l.y != r.y || (l.position - Eigen::Vector3d(l.x * z, l.y * z, z)).norm() < 1e-6) << what << m;
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
        "MarkerExtractor.cpp:2813   StereoCircleMarkerExtractor: Please check the left eye camera or right eye camera, failed to extract "
        "Marker Points.\n";
    for (Rows rows : {Rows({}, {{0, 1}}), Rows({{1, 1}}, {}), Rows({}, {})}) {
        rows.fundamental.release();
        EXPECT_TRUE(rows.match().empty() && rows.points.size() == 1 && rows.refusal.empty());
        EXPECT_EQ(rows.log, line);
    }
    for (const auto argument : {&Rows::pose, &Rows::leftCamera, &Rows::rightCamera, &Rows::fundamental}) {
        Rows nowhere({{1, 1}, {2, 1}}, {{0, 1}, {1, 1}, {9, 9}});
        (nowhere.*argument).setTo(kNaN);
        EXPECT_TRUE(nowhere.match().empty());
        EXPECT_EQ(nowhere.refusal, "");
    }
    Rows single({{1, 1}}, {{0, 1}});
    single.fundamental.convertTo(single.fundamental, CV_32F);
    EXPECT_EQ(single.match().size(), 1u);
}

TEST(FromCorners, MatchesNoisyCentresForAnyNumberOfThreads) {
    const scene::Rig rig = scene::makeVergedRig({2448, 2048});
    const CircleMarkerExtractor e = calibrated(rig);
    const SharedLoops shared;
    for (const double missing : {0.0, 0.1}) {
        std::size_t all = 0, wrong = 0;
        for (unsigned seed = 1; seed <= 10; ++seed) {
            // True centres with 0.1 px of noise in each coordinate; the right list in another order.
            auto [left, right, seen] = exactCorners(rig, scene::makeCurvedObject(rig, 60, 1.5, 2.5, 190, seed));
            for (std::size_t k = 0; k < seen.size(); ++k) left[k].id = right[k].id = static_cast<int>(k);
            std::shuffle(right.begin(), right.end(), std::mt19937(seed));
            cv::RNG rng(seed);
            for (std::vector<Corner>* corners : {&left, &right}) {
                std::erase_if(*corners, [&](const Corner&) { return rng.uniform(0.0, 1.0) < missing; });
                for (Corner& c : *corners) c.x += rng.gaussian(0.1), c.y += rng.gaussian(0.1);
            }
            std::vector<Point3_<double>> points;
            Pairs pairs;
            for (const int team : {1, static_cast<int>(2 + seed % 3)}) {
                omp_set_num_threads(team);
                const Pairs before = std::exchange(
                    pairs, getStereoMarker3dPoints(left, right, e.leftTriangulation, e.leftIntrinsic, e.rightIntrinsic, e.fundamental, points));
                EXPECT_TRUE(team == 1 || before == pairs) << seed;
            }
            all += pairs.size();
            for (std::size_t m = 0; m < pairs.size(); ++m) {
                const int id = left[asIndex(pairs[m].first)].id;
                const bool isWrong = id != right[asIndex(pairs[m].second)].id;
                wrong += isWrong;
                EXPECT_TRUE(isWrong || cv::norm(cv::Vec3d(&points[m].x) - seen[asIndex(id)].centre) < 0.4) << seed;
            }
        }
        EXPECT_TRUE(all > (missing > 0 ? 460u : 590u) && wrong <= (missing > 0 ? 3 : 0)) << all << ' ' << wrong;
    }
}

}  // namespace kestrune::test::from_corners
