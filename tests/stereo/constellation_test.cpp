// SPDX-License-Identifier: Apache-2.0
#include "MarkerExtractor/stereo/constellation.h"
#include "MarkerExtractor/stereo/index.h"

#include <numeric>
#include <random>

#include "support/calls.h"
#include "support/teams.h"

namespace kestrune::test::constellation {

using Records = std::vector<MarkerMatchRecord>;
using Active = std::vector<const MarkerMatchRecord*>;
using Corners = std::array<int, 3>;

const auto at = [](double x, double y, const std::vector<int>& matches = {}) { return MarkerMatchRecord{x, y, matches, {}, {}, {}, 0}; };

/// The markers of one eye that have a candidate, and the edges between them, both by the indices of the records.
struct PlainEye {
    Active all;
    int count = 0;
    std::vector<MarkerEdge> edges;
    explicit PlainEye(const Records& records) {
        Active active;
        for (const MarkerMatchRecord& r : records) all.push_back(&r), active.insert(active.end(), r.matches.empty() ? 0 : 1, &r);
        count = static_cast<int>(active.size()), edges = buildEdges(active);
        for (MarkerEdge& e : edges) e.first = static_cast<int>(e.from - all[0]), e.second = static_cast<int>(e.to - all[0]);
    }
    cv::Point2d operator[](int i) const { return {all[asIndex(i)]->x, all[asIndex(i)]->y}; }
    cv::Point2d mean(const Corners& c) const { return ((*this)[c[1]] + (*this)[c[2]] + (*this)[c[0]]) / 3.; }
};

const auto polar = [](cv::Point2d from, cv::Point2d to) {
    const double dx = to.x - from.x, dy = to.y - from.y;
    return cv::Point2d(std::sqrt(dx * dx + dy * dy), std::atan2(dy, dx));
};

/// (shared end, other end of a, other end of b); all -1 if there is none, or if both are shared.
Corners cornersOf(const MarkerEdge& a, const MarkerEdge& b) {
    for (auto [s, e] : {std::pair(a.first, a.second), std::pair(a.second, a.first)}) {
        if (s == b.first && e != b.second) return {s, e, b.second};
        if (s == b.second && e != b.first) return {s, e, b.first};
    }
    return {-1, -1, -1};
}

/// The search as one thread does it that goes through everything in index order, without any short cut.
bool plainSearch(const Records& leftRecords, const Records& rightRecords, double l, double g, Pairs& best) {
    const PlainEye left(leftRecords), right(rightRecords);
    const auto n = static_cast<std::int64_t>(left.edges.size());
    Pairs pairs;
    double bestError = kInf, error = 0;
    const int patience = n < 2000 ? 4 : 6, required = 3 * std::min(left.count, right.count) / 4;
    int valid = 0, bestCount = -1;

    const auto isFlat = [](const MarkerEdge& e) { return 1 - std::abs(std::cos(e.angle)) < 0.003; };
    const auto isShort = [](double a, double b) { return std::abs(a - b) < 2; };
    const auto isMatch = [](const MarkerMatchRecord& r, int p) { return std::count(r.matches.begin(), r.matches.end(), p) > 0; };
    const auto fits = [&](const MarkerEdge& e, const MarkerEdge& k) {
        const bool ex = isShort(e.from->x, e.to->x), ey = isShort(e.from->y, e.to->y);
        if (k.length < (1 - l) * e.length || k.length >= (1 + l) * e.length) return false;
        if (isShort(k.from->x, k.to->x) != ex || isShort(k.from->y, k.to->y) != ey) return false;
        if (!ex && !ey && (e.angle * k.angle < 0 || std::abs(e.angle - k.angle) > g)) return false;
        const bool isTurned = ex && (k.from->y - k.to->y) * (e.from->y - e.to->y) < 0;
        return isMatch(*e.from, isTurned ? k.second : k.first) && isMatch(*e.to, isTurned ? k.first : k.second);
    };
    const auto costOf = [&](cv::Point2d p, cv::Point2d q) {
        const double rel = std::abs((q.x - p.x) / std::max(p.x, q.x)), turn = std::abs(q.y - p.y);
        return rel > std::abs(l) || turn > g || p.y * q.y < 0 ? kInf : 0.3 * rel + 0.5 * turn;
    };
    const auto score = [&](cv::Point2d leftCentroid, cv::Point2d rightCentroid) {
        pairs.clear(), error = 0;
        for (int t = 0; t < static_cast<int>(left.all.size()); ++t) {
            double least = kInf;
            int u = -1;
            for (int c : left.all[asIndex(t)]->matches) {
                const double cost = costOf(polar(leftCentroid, left[t]), polar(rightCentroid, right[c]));
                if (cost == kInf || (u >= 0 && !(cost < least))) continue;
                error += u < 0 ? cost : cost - least;
                least = cost, u = c;
            }
            if (u < 0) continue;
            const cv::Point2d partner = polar(rightCentroid, right[u]);
            const bool hasRival = std::any_of(right.all[asIndex(u)]->matches.begin(), right.all[asIndex(u)]->matches.end(),
                                              [&](int v) { return v != t && costOf(partner, polar(leftCentroid, left[v])) < least; });
            error -= hasRival ? least : 0;
            if (!hasRival) pairs.emplace_back(t, u);
        }
        return pairs.size() >= 3;
    };
    const auto tryPair = [&](const MarkerEdge& a, const MarkerEdge& b) {
        const Corners ends = cornersOf(a, b);
        if (ends[0] < 0 || (isFlat(a) && isFlat(b))) return false;
        const cv::Point2d third = polar(left[ends[1]], left[ends[2]]);
        for (const MarkerEdge& k : right.edges) {
            for (std::size_t m = 0; fits(a, k) && m < right.edges.size(); ++m) {
                const Corners image = cornersOf(k, right.edges[m]);
                if (image[0] < 0 || !fits(b, right.edges[m]) || (isFlat(k) && isFlat(right.edges[m]))) continue;
                const cv::Point2d other = polar(right[image[1]], right[image[2]]);
                const double ratio = std::abs(third.x / other.x);
                if (ratio < 1 - std::abs(l) || ratio > 1 + std::abs(l) || std::abs(other.y - third.y) > g) continue;
                if (!score(left.mean(ends), right.mean(image))) continue;
                const int count = static_cast<int>(pairs.size());
                if (count > bestCount || (count == bestCount && error < bestError)) best = pairs, bestCount = count, bestError = error;
                if (++valid >= 6 * patience || (valid >= 6 && bestCount >= required)) return true;
            }
        }
        return false;
    };

    std::vector<int> order(static_cast<std::size_t>(n));
    std::iota(order.begin(), order.end(), 0);
    std::mt19937 generator;
    std::uniform_int_distribution<int> draw(0, std::max(0, static_cast<int>(n) - 1));
    for (std::int64_t i = n < 2 ? 0 : n < 2000 ? n * (n - 1) / 2 : 2'000'000; i > 0; --i) {
        for (const std::size_t slot : {0U, 1U}) std::swap(order[slot], order[asIndex(draw(generator))]);
        if (!tryPair(left.edges[asIndex(std::min(order[0], order[1]))], left.edges[asIndex(std::max(order[0], order[1]))])) continue;
        pruneInconsistentPairs(left.all, right.all, best, l, g);
        return true;
    }
    best.clear();
    return false;
}

using Scene = std::tuple<Records, Records, Pairs>;  // left, right, truth

/// Markers of a sloping object, shuffled in the right eye, or a flat regular grid. By chance markers have rivals, some
/// entries stand twice, and some markers have no true partner.
Scene makeScene(unsigned seed, int n, bool isGrid, double rivals, double truthShare, double size = 2000) {
    std::mt19937 generator(seed);
    const auto uniform = [&](double lo, double hi) { return lo + (hi - lo) * (generator() / 4294967296.0); };
    std::vector<int> image(asIndex(n));
    std::iota(image.begin(), image.end(), 0);
    for (std::size_t i = image.size(); i-- > 1;) std::swap(image[i], image[generator() % (i + 1)]);
    Records left(image.size()), right(image.size());
    Pairs truth;
    for (int i = 0, row = 0, side = std::max(1, static_cast<int>(std::sqrt(n))); i < n; row = ++i / side) {
        const double x = isGrid ? 60 * (i % side) : uniform(0, size), y = isGrid ? 60 * row : uniform(0, size / 6);
        left[asIndex(i)] = at(x, y);
        right[asIndex(image[asIndex(i)])] = isGrid ? at(x - 99, y) : at(.98 * x + .01 * y + uniform(-.3, .3), y + uniform(-.3, .3));
    }
    const auto link = [&](int i, int j) { left[asIndex(i)].matches.push_back(j), right[asIndex(j)].matches.push_back(i); };
    for (int i = 0; i < n; ++i) {
        for (int more = static_cast<int>(uniform(0, 2 * rivals)); more > 0; --more) link(i, static_cast<int>(generator() % image.size()));
        if (uniform(0, 1) < truthShare) link(i, image[asIndex(i)]), truth.emplace_back(i, image[asIndex(i)]);
    }
    return {left, right, truth};
}

TEST(FindConstellation, IsThePlainSearchForAnySceneAndNumberOfThreads) {
    const SharedLoops shared;
    const int total = 9 * 2 * 3 * 3 * 2 * 4;
    int reached = 0;
    for (int i = 0; i < total + 2; ++i) {
        const int n = std::array{0, 1, 2, 3, 4, 6, 9, 13, 16}[asIndex(i % 9)], kind = i / 9;
        const double rivals = std::array{0, 2, 9}[asIndex(kind / 2 % 3)], truthShare = std::array{0., .5, 1.}[asIndex(kind / 6 % 3)];
        // Two with loose tolerances and all markers candidates: more triangles in one go than one thread would be given.
        const bool isLarge = i >= total, isLoose = kind / 18 % 2 == 1;
        const double l = isLarge ? 0.5 : isLoose ? 0.3 : 0.1, g = isLarge ? 0.6 : isLoose ? 0.3 : 0.08, size = kind / 36 % 2 ? 40 : 400;
        const auto [left, right, truth] =
            isLarge ? makeScene(11, 36, i == total, 60, 0.6) : makeScene(static_cast<unsigned>(i), n, kind % 2 == 0, rivals, truthShare, size);
        leastSharedWork = isLarge ? 0 : shared.usual;  // a team for each of so many small batches takes long to gather on a busy machine
        Pairs pairs{{7, 7}}, expected;
        const bool isReached = plainSearch(left, right, l, g, expected);
        reached += isReached;
        for (int run = 0; run < (isLarge ? 200 : 1); ++run) {
            omp_set_num_threads(isLarge ? 1 << run % 4 : shared.threads);
            ASSERT_EQ(findConstellation(left, right, l, g, pairs), isReached) << i << ' ' << run;
            ASSERT_EQ(pairs, expected) << i << ' ' << run;
        }
    }
    EXPECT_TRUE(reached > total / 4 && reached < total * 3 / 4) << reached;
}

TEST(FindConstellation, FindsTheTruthAmongRivalsAndDamage) {
    Pairs pairs;
    for (const int n : {8, 40, 70, 210}) {
        auto [left, right, truth] = makeScene(5, n, false, 2, 1);
        left.insert(left.end(), {at(kNaN, 300, {0}), at(500, kInf, {1, 2}), at(400, 300, {-1, INT_MAX, n})});
        right.insert(right.end(), {at(kNaN, kNaN, {0, 1}), at(-kInf, 10, {-5, n + 1})});
        left[0].matches.insert(left[0].matches.begin(), {n, 12345, n + 1});
        ASSERT_TRUE(findConstellation(left, right, 0.1, 0.08, pairs)) << n;
        EXPECT_EQ(pairs, truth) << n;
        for (const double t : {kNaN, -0.1, kInf}) findConstellation(left, right, t, t, pairs);
    }
}

TEST(BuildEdges, FoldsDirectionsAndSortsByLength) {
    const Records records{at(10, 10), at(13, 14), at(10, 5), at(kNaN, 0), at(7, 6)};
    // Ends, length, angle. Equal lengths stand in the order of the ends; an upright edge starts at its later end.
    const std::tuple<int, int, double, double> expected[] = {
        {4, 2, 3.1622776601683795, -0.3217505543966422}, {0, 1, 5, 0.9272952180016122}, {2, 0, 5, 1.5707963267948966}, {4, 0, 5, 0.9272952180016122},
        {2, 1, 9.486832980505138, 1.2490457723982544},   {4, 1, 10, 0.9272952180016122}};
    const auto edges = buildEdges({&records[0], &records[1], &records[2], &records[3], &records[4]});
    ASSERT_EQ(edges.size(), 10u);
    for (std::size_t i = 0; i < std::size(expected); ++i) {
        const auto& [first, second, length, angle] = expected[i];
        EXPECT_TRUE(edges[i].first == first && edges[i].second == second && edges[i].from == &records[asIndex(first)] &&
                    edges[i].to == &records[asIndex(second)])
            << i;
        EXPECT_DOUBLE_EQ(edges[i].length, length) << i;
        EXPECT_DOUBLE_EQ(edges[i].angle, angle) << i;
    }
    EXPECT_TRUE(std::isnan(edges[6].length));
}

TEST(PruneInconsistentPairs, TheWorseOfTwoThatContradictGoes) {
    using Places = std::vector<cv::Point2d>;
    const std::tuple<const char*, Places, Places, std::vector<int>, double> cases[] = {
        {"nothing", {}, {}, {}, 0.1},
        {"moved", {{0, 0}, {100, 0}, {0, 100}}, {{50, 9}, {150, 9}, {50, 109}}, {0, 1, 2}, 0.1},
        {"one against all", {{0, 0}, {100, 0}, {0, 100}, {90, 95}}, {{0, 0}, {100, 0}, {0, 100}, {40, 160}}, {0, 1, 2}, 0.1},
        {"two alone are equal", {{0, 0}, {100, 0}}, {{0, 0}, {0, 100}}, {0, 1}, 0.1},
        {"the undisputed decides", {{0, 0}, {10, 0}, {900, 0}}, {{0, 0}, {10, 5}, {900, 0}}, {0, 2}, 0.1},
        {"and so for the other", {{0, 0}, {10, 0}, {900, 0}}, {{0, -5}, {10, 0}, {900, 0}}, {1, 2}, 0.1},
        {"nearly a whole turn, 0.968, is none", {{100, 0}, {0, 10}, {50, 900}}, {{100, 0}, {0, -10}, {50, 900}}, {0, 1, 2}, 0.1},
        {"0.931 is one", {{100, 0}, {0, 22}, {50, 900}}, {{100, 0}, {0, -22}, {50, 900}}, {0, 2}, 0.1},
        {"length alone is none", {{0, 0}, {100, 0}}, {{0, 0}, {180, 0}}, {0, 1}, 0.1},
        {"length and half the angle", {{0, 0}, {10, 0}, {900, 0}}, {{0, 0}, {18, 1.2}, {900, 0}}, {0, 2}, 0.1},
        {"14 % of length and 0.07 rad", {{0, 0}, {10, 0}, {900, 0}}, {{0, 0}, {11.6, 0.813}, {900, 0}}, {0, 1, 2}, 0.1},
        {"16 % and 0.07 rad", {{0, 0}, {10, 0}, {900, 0}}, {{0, 0}, {11.9, 0.834}, {900, 0}}, {0, 2}, 0.1},
        {"and 0.055 rad", {{0, 0}, {10, 0}, {900, 0}}, {{0, 0}, {11.9, 0.655}, {900, 0}}, {0, 2}, 0.1},
        {"and 0.045 rad", {{0, 0}, {10, 0}, {900, 0}}, {{0, 0}, {11.9, 0.535}, {900, 0}}, {0, 1, 2}, 0.1},
        {"half the angle alone", {{0, 0}, {10, 0}, {900, 0}}, {{0, 0}, {10, 0.7}, {900, 0}}, {0, 1, 2}, 0.1},
        {"0.09 rad weigh more than 12 % of length", {{0, 0}, {10, 0}, {900, 0}}, {{-122.7, 0}, {13.6, -80}, {900, 0}}, {0, 2}, 0.1},
        {"and less than 20 %", {{0, 0}, {10, 0}, {900, 0}}, {{-225, 0}, {13.6, -80}, {900, 0}}, {1, 2}, 0.1},
        {"to the other side", {{0, 0}, {10, 2}, {900, 0}}, {{0, 0}, {10, -2}, {900, 0}}, {0, 2}, 0.5},
        {"on the same side", {{0, 0}, {10, 2}, {900, 0}}, {{0, 0}, {10, 6}, {900, 0}}, {0, 1, 2}, 0.5}};
    for (const auto& [what, left, right, kept, angleTolerance] : cases) {
        Records l, r;
        Pairs pairs, expected;
        for (std::size_t i = 0; i < left.size(); ++i) {  // the right list is turned around
            l.push_back(at(left[i].x, left[i].y)), r.insert(r.begin(), at(right[i].x, right[i].y));
            pairs.emplace_back(i, left.size() - 1 - i);
        }
        for (int i : kept) expected.push_back(pairs[asIndex(i)]);
        pruneInconsistentPairs(PlainEye(l).all, PlainEye(r).all, pairs, 0.1, angleTolerance);
        EXPECT_EQ(pairs, expected) << what;
    }
}

}  // namespace kestrune::test::constellation
