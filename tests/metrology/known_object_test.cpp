// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <Eigen/Geometry>
#include <algorithm>
#include <cmath>
#include <random>

#include "matching/known_object.h"

namespace kestrune::matching {
namespace {

using Vector3 = Eigen::Vector3d;

struct Sight {
    double seen = 1;      // share of the object's markers
    int others = 0;       // right points that are not of the object
    int wrong = 0;        // candidates for each right one, on its line of sight
    double right = 0.5;   // probability of the right ones; the wrong ones share the rest
    double noise = 0.02;  // across; five times as much in depth
    double told = 1;      // standard deviations as told over the true ones
};

struct Exposure {
    std::vector<SpacePoint> points;
    std::vector<int> truth;
    Eigen::Isometry3d pose;
    int seen = 0;
};

Exposure see(const std::vector<KnownMarker>& object, unsigned seed, const Sight& sight) {
    std::mt19937 random(seed);
    std::normal_distribution<double> normal;
    std::uniform_real_distribution<double> even(-1, 1);
    const auto any = [&] { return Vector3(even(random), even(random), even(random)); };
    Exposure e;
    e.pose = Eigen::Translation3d(Vector3(50, -20, 900) + 30 * any()) * Eigen::AngleAxisd(3 * even(random), any().normalized());
    const auto add = [&](const Vector3& place, double radius, int line, int other, int truth) {
        SpacePoint p{line,
                     other,
                     place,
                     Vector3(1, 1, 25).asDiagonal(),
                     std::log(radius) + 0.01 * normal(random),
                     0.01,
                     truth == -2 ? (1 - sight.right) / sight.wrong : sight.right};
        p.covariance *= sight.noise * sight.noise;
        p.place += p.covariance.cwiseSqrt() * Vector3(normal(random), normal(random), normal(random));
        p.covariance *= sight.told * sight.told;
        e.points.push_back(p);
        e.truth.push_back(truth);
    };
    for (int k = 0, lines = 0; k < static_cast<int>(object.size()) + sight.others; ++k) {
        const bool own = k < static_cast<int>(object.size());
        if (own && even(random) > 2 * sight.seen - 1) continue;
        const KnownMarker marker = own ? object[static_cast<std::size_t>(k)] : KnownMarker{};
        const cv::Vec3d& c = marker.centre;
        add(own ? e.pose * Vector3(c[0], c[1], c[2]) : Vector3(50, -20, 900) + 250 * any(), own ? marker.radius : 3, lines, lines, own ? k : -1);
        e.seen += own;
        ++lines;
    }
    const auto lines = static_cast<unsigned>(e.points.size());
    for (unsigned k = 0; k < lines; ++k)
        for (int w = 0; w < sight.wrong; ++w)
            add(e.points[k].place * (1 + 0.25 * even(random)), 3 * (1 + 0.3 * even(random)), static_cast<int>(k),
                static_cast<int>((k + 1 + random() % (lines - 1)) % lines), -2);
    return e;
}

std::vector<KnownMarker> scattered(int count, unsigned seed, double depth = 60) {
    std::mt19937 random(seed);
    std::uniform_real_distribution<double> even(-1, 1);
    std::vector<KnownMarker> object;
    for (int k = 0; k < count; ++k) object.push_back({{200 * even(random), 150 * even(random), depth * even(random)}, 3, 0.02});
    return object;
}

std::vector<KnownMarker> grid(int columns, int rows) {
    std::vector<KnownMarker> object;
    for (int k = 0; k < columns * rows; ++k) object.push_back({{30.0 * (k % columns), 30.0 * (k / columns), 0}, 3, 0.02});
    return object;
}

struct Score {
    int right = 0, wrong = 0, bare = 0, lured = 0;  // by `known`; right ones of the object without, others with evidence
};

Score scoreOf(const Exposure& e, const ObjectFit& fit) {
    Score s;
    for (std::size_t k = 0; k < e.truth.size(); ++k) {
        s.right += e.truth[k] >= 0 && fit.known[k] == e.truth[k];
        s.wrong += fit.known[k] >= 0 && fit.known[k] != e.truth[k];
        s.bare += e.truth[k] >= 0 && fit.evidence[k] < 5;
        s.lured += e.truth[k] < 0 && fit.evidence[k] > 5;
    }
    return s;
}

TEST(KnownObject, IsFoundAmongOtherPointsAndDecides) {
    const struct {
        int known;
        Sight sight;
    } cases[] = {{100, {}},
                 {150, {.seen = 0.3, .others = 100, .wrong = 3, .right = 0.25}},  // most of it hidden
                 {60, {.wrong = 10, .right = 0.09}},
                 {60, {.others = 10, .wrong = 1, .right = 0.05}},  // the exposure believes in the wrong ones
                 {60, {.seen = 0.6, .others = 20, .wrong = 2, .noise = 0.1, .told = 0.5}},
                 {12, {.others = 60, .wrong = 2, .right = 0.9}},
                 {6, {.others = 5, .right = 0.99}}};
    for (const auto& c : cases)
        for (unsigned seed = 1; seed < 4; ++seed) {
            SCOPED_TRACE(testing::Message() << c.known << " of seed " << seed);
            const auto object = scattered(c.known, seed);
            const Exposure e = see(object, seed, c.sight);
            const ObjectFit fit = fitObject(e.points, object);
            ASSERT_TRUE(fit.found);
            const Score score = scoreOf(e, fit);
            EXPECT_EQ(fit.seen, score.right);
            EXPECT_GE(score.right, e.seen - 1);
            EXPECT_EQ(score.wrong, 0);
            EXPECT_LE(score.bare, e.seen / 50);
            EXPECT_LE(score.lured, static_cast<int>(e.points.size()) / 50);
            EXPECT_LT((fit.rotation - e.pose.linear()).norm(), c.sight.noise / 10);
            EXPECT_LT((fit.shift - e.pose.translation()).norm(), 10 * c.sight.noise);
        }
}

TEST(KnownObject, IsNotFoundWhereItIsNotOrMayBeElsewhere) {
    const auto mirrored = [](std::vector<KnownMarker> object) {
        for (KnownMarker& marker : object) marker.centre[2] *= -1;
        return object;
    };
    auto odd = grid(8, 6), sizes = grid(8, 6), part = grid(8, 6);
    odd.push_back({{40, 55, 0}, 3, 0.02});
    auto unlike = odd;
    unlike.push_back({{110, 85, 0}, 3, 0.02});
    for (const int k : {0, 9, 17, 28}) sizes[static_cast<std::size_t>(k)].radius = 4;
    part.erase(part.begin(), part.begin() + 24);
    const auto some = scattered(60, 1), shallow = scattered(60, 1, 10);
    const struct {
        const char* name;
        std::vector<KnownMarker> object, seen;
        bool found, ambiguous;
    } cases[] = {{"itself", some, some, true, false},
                 {"its mirror image", mirrored(some), some, false, false},
                 {"mirror image of a shallow one", mirrored(shallow), shallow, false, false},
                 {"another", scattered(60, 2), some, false, false},
                 {"another flat one", scattered(60, 2, 0), scattered(60, 1, 0), false, false},
                 {"two markers", {some[0], some[1]}, some, false, false},
                 {"three markers, two seen", {some[0], some[1], some[2]}, {some[0], some[1]}, false, false},
                 {"grid", grid(8, 6), grid(8, 6), false, true},
                 {"a half of a grid", unlike, part, false, true},
                 {"grid and one marker", odd, odd, false, true},
                 {"grid and two markers", unlike, unlike, true, false},
                 {"grid of two sizes", sizes, sizes, true, false},
                 {"nothing", some, {}, false, false}};
    for (const auto& c : cases) {
        const ObjectFit fit = fitObject(see(c.seen, 3, {.wrong = c.seen.empty() ? 0 : 2}).points, c.object);
        EXPECT_EQ(fit.found, c.found) << c.name;
        EXPECT_EQ(fit.ambiguous, c.ambiguous) << c.name;
        for (const double evidence : fit.evidence) EXPECT_TRUE(fit.found || evidence == 0) << c.name;
    }
}

TEST(KnownObject, IsWhatAnEarlierExposureShowed) {
    const auto object = scattered(80, 5);
    const Exposure before = see(object, 1, {.seen = 0.8}), now = see(object, 2, {.seen = 0.8, .wrong = 3, .right = 0.25});
    std::vector<KnownMarker> known;
    for (const SpacePoint& p : before.points) known.push_back({{p.place.x(), p.place.y(), p.place.z()}, std::exp(p.logRadius), 0.06});
    const ObjectFit fit = fitObject(now.points, known);
    ASSERT_TRUE(fit.found);
    int common = 0;
    for (std::size_t k = 0; k < now.truth.size(); ++k) {
        const int is = fit.known[k] < 0 ? -1 : before.truth[static_cast<std::size_t>(fit.known[k])];
        const bool expected = now.truth[k] >= 0 && std::count(before.truth.begin(), before.truth.end(), now.truth[k]) > 0;
        EXPECT_EQ(is, expected ? now.truth[k] : -1);
        common += expected;
    }
    EXPECT_GT(common, 40);
}

/// Each pose has thousands of points near where they are known less well than they are apart.
TEST(KnownObject, EndsInACrowdOfVaguePoints) {
    const Exposure e = see(scattered(500, 1), 1, {.others = 4500, .noise = 10});
    EXPECT_FALSE(fitObject(e.points, scattered(500, 1)).found);
}

TEST(KnownObject, TakesAnyOrderAndLeavesOutPointsThatAreNone) {
    auto object = scattered(40, 1);
    Exposure e = see(object, 1, {.seen = 0.7, .others = 10, .wrong = 2});
    const ObjectFit fit = fitObject(e.points, object);
    ASSERT_TRUE(fit.found);
    std::reverse(e.points.begin(), e.points.end());
    std::reverse(object.begin(), object.end());
    for (int k = 0; k < 3; ++k) {
        SpacePoint none = e.points[0];
        if (k == 0) none.place.x() = std::nan("");
        if (k == 1) none.covariance.setZero();
        if (k == 2) none.probability = std::nan("");
        e.points.push_back(none);
    }
    const ObjectFit again = fitObject(e.points, object);
    EXPECT_EQ(again.rotation, fit.rotation);
    EXPECT_EQ(again.shift, fit.shift);
    for (std::size_t k = 0, last = fit.known.size() - 1; k < fit.known.size(); ++k) {
        EXPECT_EQ(again.evidence[last - k], fit.evidence[k]);
        EXPECT_EQ(again.known[last - k], fit.known[k] < 0 ? -1 : 39 - fit.known[k]);
    }
    EXPECT_EQ(std::count(again.known.end() - 3, again.known.end(), -1), 3);
}

}  // namespace
}  // namespace kestrune::matching
