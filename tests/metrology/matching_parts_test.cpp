// SPDX-License-Identifier: Apache-2.0
#include <bit>
#include <cmath>
#include <numeric>

#include "matching/assignment.h"
#include "matching/circle_agreement.h"
#include "matching/holes.h"
#include "matching/kernel_grid.h"
#include "matching/mixture.h"
#include "matching/rig_motion.h"
#include "matching/surfaces.h"
#include "support/calls.h"
#include "support/matching.h"

namespace kestrune::test::matching_parts {

using namespace matching;

EpipolarFrame frameOf(const scene::Rig& rig) {
    return EpipolarFrame::of(idealRig(rig), rig.right.rotation, rig.right.translation);
}

using NamedRigs = std::vector<std::pair<const char*, scene::Rig>>;

const NamedRigs& rigs() {
    static const NamedRigs all = {{"verged", rigOf({0.01, 0.25, 0.02}, {250, 3, 6})},
                                  {"rolled", rigOf({0.03, 0.25, 0.5}, {250, -10, 20})},
                                  {"lopsided", rigOf({0.05, 0.5, -0.05}, {450, -60, 90}, 0.7)},
                                  {"parallel", rigOf({0, 0, 0}, {100, 0, 0})},
                                  {"upright", rigOf({-0.25, 0, 0}, {0, 250, 0})}};
    return all;
}

/// Discs of up to 60 degrees that face both eyes of a rig.
std::vector<scene::Disc> discsBefore(const scene::Rig& rig, double pixels, int count) {
    std::mt19937 random(3);
    std::uniform_real_distribution<double> u(-1, 1);
    const cv::Vec3d right = -(rig.right.rotation.t() * rig.right.translation);
    std::vector<scene::Disc> discs;
    while (static_cast<int>(discs.size()) < count) {
        const cv::Vec3d centre{60 * u(random) + 50, 60 * u(random), 900 + 100 * u(random)};  // braces: drawn in this order by any compiler
        const cv::Vec3d normal = cv::normalize(cv::Vec3d{u(random), u(random), -1});
        const auto faces = [&](const cv::Vec3d& eye) { return normal.dot(cv::normalize(eye - centre)) > 0.5; };
        if (faces({}) && faces(right)) discs.push_back({centre, normal, pixels * centre[2] / 3000, 200});
    }
    return discs;
}

/// How far an agreement is off, with what it says.
struct Error {
    CircleFit fit;
    double normal, radius, depth;  ///< radians, and of the logarithms
};

std::vector<Error> errorsOf(const scene::Rig& rig, double pixels, double noise, double told, int draws) {
    const EpipolarFrame frame = frameOf(rig);
    Measured measured(noise);
    std::vector<Error> errors;
    for (const scene::Disc& disc : discsBefore(rig, pixels, 100)) {
        for (int draw = 0; draw < draws; ++draw) {
            const auto left = sightlineOf(measured(rig.left, disc, told), frame, 0), right = sightlineOf(measured(rig.right, disc, told), frame, 1);
            const Agreement agreement = agreementOf(*left, *right, frame.baseline, 1e9);
            EXPECT_GT(agreement.count, 0);
            const CircleFit& fit = agreement.fits[0];
            const Eigen::Vector3d centre = frame.fromLeft * Eigen::Vector3d(disc.centre.val),
                                  normal = frame.fromLeft * Eigen::Vector3d(disc.normal.val);
            errors.push_back({fit, (fit.normal - normal).norm(), fit.logRadius - std::log(disc.radius), fit.logDepth - std::log(centre.z())});
        }
    }
    return errors;
}

TEST(CircleAgreement, GivesExactDiscsBack) {
    for (const auto& [name, rig] : rigs()) {
        for (const double pixels : {2.0, 10.0, 40.0, 80.0}) {
            SCOPED_TRACE(cv::format("%s %g", name, pixels));
            for (const Error& e : errorsOf(rig, pixels, 0, 0.02, 1)) {
                EXPECT_LT(e.fit.chiSquare, pixels < 50 ? 0.3 : 1.5);
                EXPECT_LT(e.normal, 8e-4 + 4e-3 / pixels);
                EXPECT_LT(std::max(std::abs(e.radius), std::abs(e.depth)), 2e-4);
                EXPECT_LT(std::abs(e.fit.epipolar), 1e-7);
            }
        }
    }
}

TEST(CircleAgreement, HasHonestSigmas) {
    for (const auto& [name, rig] : rigs()) {
        for (const double pixels : {8.0, 80.0}) {
            SCOPED_TRACE(cv::format("%s %g", name, pixels));
            const std::vector<Error> errors = errorsOf(rig, pixels, 0.03, 0.03, 20);
            const auto mean = [&](const auto& of) {
                return std::accumulate(errors.begin(), errors.end(), 0.0, [&](double sum, const Error& e) { return sum + of(e); }) /
                       static_cast<double>(errors.size());
            };
            EXPECT_NEAR(mean([](const Error& e) { return e.fit.chiSquare; }), 3, 0.15);
            EXPECT_NEAR(mean([](const Error& e) { return std::pow(e.fit.epipolar / e.fit.sigmaEpipolar, 2); }), 1, 0.1);
            EXPECT_NEAR(mean([](const Error& e) { return 0.5 * std::pow(e.normal / e.fit.sigmaNormal, 2); }), 1,
                        0.25);  // of two ends the wrong one may be the better
            EXPECT_NEAR(mean([](const Error& e) { return std::pow(e.radius / e.fit.sigmaRadius, 2); }), 1, 0.1);
            const double depth = mean([](const Error& e) { return std::pow(e.depth / e.fit.sigmaDepth, 2); });
            EXPECT_TRUE(pixels > 50 || std::abs(depth - 1) < 0.15) << depth;  // the axis of a large disc is a little beside its centre
        }
    }
}

TEST(CircleAgreement, FindsNoneWhereThereIsNone) {
    const scene::Rig& rig = rigs()[0].second;
    const scene::Disc disc{{40, 20, 900}, {0.1, 0.2, -std::sqrt(0.95)}, 5, 200};
    scene::Disc larger = disc, tilted = disc, aside = disc;
    larger.radius = 5.5, tilted.normal = {-0.6, 0, -0.8}, aside.centre[0] = 700;
    const auto fits = [&](const scene::Disc& ofLeft, const scene::Disc& ofRight) {
        const EpipolarFrame frame = frameOf(rig);
        Measured measured(0);
        return agreementOf(*sightlineOf(measured(rig.left, ofLeft, 0.02), frame, 0), *sightlineOf(measured(rig.right, ofRight, 0.02), frame, 1),
                           frame.baseline, 90)
            .count;
    };
    EXPECT_EQ(fits(disc, disc), 1);
    for (const scene::Disc& other : {larger, tilted, aside}) EXPECT_EQ(fits(disc, other), 0);  // the last: rays that do not meet
}

TEST(Assign, IsTheSumOverAllAssignments) {
    std::mt19937 random(1);
    std::uniform_real_distribution<double> u(0, 1);
    for (int draw = 0; draw < 300; ++draw) {
        const int lefts = 1 + draw % 5, rights = 1 + draw / 5 % 5;
        std::vector<Edge> edges;
        for (int i = 0; i < lefts; ++i)
            for (int j = 0; j < rights; ++j)
                if (edges.size() < 12 && u(random) < 0.6) edges.push_back({i, j, -6 + (draw % 2 == 0 ? 14 : 60) * u(random)});
        double sum = 0, best = -1;
        std::vector<double> probability(edges.size());
        std::vector<char> chosen;
        for (unsigned subset = 0; subset < 1U << edges.size(); ++subset) {
            unsigned taken = 0, count = 0;  // ten bits for the markers of both eyes
            double weight = 1;
            std::vector<char> members(edges.size());
            for (std::size_t e = 0; e < edges.size(); ++e) {
                if ((subset >> e & 1) == 0) continue;
                members[e] = 1, count += 2, weight *= std::exp(edges[e].logWeight);
                taken |= 1U << edges[e].left | 32U << edges[e].right;
            }
            if (static_cast<unsigned>(std::popcount(taken)) != count) continue;
            sum += weight;
            for (std::size_t e = 0; e < edges.size(); ++e) probability[e] += members[e] * weight;
            if (weight > best) best = weight, chosen = members;
        }
        const Assignment found = assign(edges, lefts, rights);
        EXPECT_EQ(found.isExact, std::vector<char>(edges.size(), 1));
        EXPECT_EQ(found.chosen, chosen) << draw;
        EXPECT_NEAR(found.logSum, std::log(sum), 1e-6) << draw;
        for (std::size_t e = 0; e < edges.size(); ++e) EXPECT_NEAR(found.probability[e], probability[e] / sum, 1e-6) << draw << ' ' << e;
    }
}

/// Matchings of a path of 81 markers: Fibonacci's numbers.
TEST(Assign, SumsLongPiecesExactly) {
    std::vector<Edge> edges;
    for (int i = 0; i < 40; ++i) edges.push_back({i, i, 0}), edges.push_back({i, i + 1, 0});
    const Assignment found = assign(edges, 40, 41);
    EXPECT_EQ(found.isExact, std::vector<char>(edges.size(), 1));
    EXPECT_NEAR(found.logSum, std::log(61305790721611591.0), 1e-9);                            // F(82)
    EXPECT_NEAR(found.probability.front(), 23416728348467685.0 / 61305790721611591.0, 1e-12);  // F(80) / F(82)
}

TEST(Assign, StaysHonestBeyondItsBounds) {
    constexpr int kSide = 40;
    for (const double logWeight : {-2.0, 0.0, 3.0}) {
        std::vector<Edge> edges;
        for (int i = 0; i < kSide; ++i)
            for (int j = 0; j < kSide; ++j) edges.push_back({i, j, logWeight});
        double pairs = 0, sum = 0, weight = 1;  // of k pairs: C(40, k)^2 k! w^k assignments
        for (int k = 0; k <= kSide; ++k) {
            sum += weight, pairs += k * weight;
            weight *= std::exp(logWeight) * (kSide - k) * (kSide - k) / (k + 1.0);
        }
        const Assignment found = assign(edges, kSide, kSide);
        EXPECT_EQ(found.isExact, std::vector<char>(edges.size(), 0));
        std::vector<double> ofLeft(kSide), ofRight(kSide);
        for (std::size_t e = 0; e < edges.size(); ++e) {
            ofLeft[e / kSide] += found.probability[e], ofRight[e % kSide] += found.probability[e];
            EXPECT_NEAR(found.probability[e], pairs / sum / kSide / kSide, 0.001);
        }
        EXPECT_LE(*std::max_element(ofLeft.begin(), ofLeft.end()), 1 + 1e-9);
        EXPECT_LE(*std::max_element(ofRight.begin(), ofRight.end()), 1 + 1e-6);
    }
    const Assignment huge = assign({{0, 0, 5000}, {1, 0, 5000}, {2, 1, 3000}}, 3, 2);
    EXPECT_NEAR(huge.probability[0], 0.5, 1e-9);
    EXPECT_NEAR(huge.probability[2], 1, 1e-9);
    EXPECT_TRUE(std::isfinite(huge.logSum));
}

/// Sixty markers at 1000 mm, radii of 3, 5 and 8 mm in turn, and twelve beside them at another depth.
TEST(Surfaces, AreNotBorneOutByThemselves) {
    struct Case {
        const char* name;
        double depth;
        std::array<double, 3> radii;  // of the twelve
        double factor;                // each next radius of the sixty, if there are no usual ones
        bool isBorneOut;
    };
    const Case cases[] = {{"a part of the same surface", 1000, {3, 5, 8}, 1, true},
                          {"an unusual size on the same surface", 1000, {4, 4, 4}, 1, true},
                          {"a layer with the same sizes", 700, {3, 5, 8}, 1, true},
                          {"columns left over, at the depth that pairs them", 700, {2.1, 3.5, 5.6}, 1, false},
                          {"the same of one size", 700, {6.5, 6.5, 6.5}, 1, false},
                          {"no usual sizes, neighbours of other ones", 700, {2.1, 3.5, 5.6}, 1.05, true},
                          {"no usual sizes, neighbours of one size", 700, {300, 300, 300}, 1.05, false}};
    for (const Case& c : cases) {
        std::vector<SeenPair> pairs;
        for (int k = 0; k < 72; ++k) {
            const bool isBeside = k >= 60;
            const std::array<double, 3> radii = isBeside ? c.radii : std::array{3., 5., 8.};
            const double radius = isBeside || c.factor == 1 ? radii[static_cast<std::size_t>(k % 3)] : std::pow(c.factor, k);
            pairs.push_back({k, k, 0.03 * (k / 6), 0.03 * (k % 6), std::log(radius), 0.004, std::log(isBeside ? c.depth : 1000), 0.003});
        }
        const Surfaces surfaces(pairs);
        for (const SeenPair& pair : pairs) EXPECT_EQ(surfaces.bearOut(pair), pair.left < 60 || c.isBorneOut) << c.name << ' ' << pair.left;
    }
}

TEST(KernelGrid, IsTheSumOfItsKernels) {
    std::mt19937 random(1);
    std::uniform_real_distribution<double> u(0, 1);
    KernelGrid grid(2, 4, {0.02, 0.1, 0.4});
    std::vector<std::pair<double, double>> values;
    for (int k = 0; k < 50; ++k) values.push_back({2.2 + 1.6 * u(random), u(random)});
    for (const auto& [x, weight] : values) grid.add(x, weight);
    grid.add(7, 0.5), values.push_back({4, 0.5});  // counts at the end
    grid.smooth();
    for (std::size_t k = 0; k < KernelGrid::kWidths; ++k) {
        double worst = 0, most = 0;
        for (double x = 2; x <= 4; x += 0.003) {
            double sum = 0;
            for (const auto& [at, weight] : values) sum += weight * 0.5 / grid.width(k) * std::exp(-std::abs(x - at) / grid.width(k));
            worst = std::max(worst, std::abs(grid.value(k, x) - sum)), most = std::max(most, sum);
        }
        EXPECT_LT(worst, (k == 0 ? 0.06 : 0.01) * most) << k;  // a cell is a third of the first width
    }
}

TEST(Mixture, LearnsTheSharesOfItsParts) {
    Mixture<2> mixture;
    mixture.count({3, 1}, 1);  // by halves: 0.75 of the first and 0.25 of the second
    mixture.count({0, 2}, 2);
    mixture.learn();
    EXPECT_NEAR(mixture.share(0), (0.75 + 0.2) / 3.4, 1e-12);
    EXPECT_NEAR(mixture({4, 0}), 4 * mixture.share(0), 1e-12);
    EXPECT_GT(mixture({0, 0}), 0);
}

/// Where the right camera was turned by degrees after its calibration.
TEST(RigMotion, FindsTurnsOfTheRightCamera) {
    const scene::Rig& told = rigs()[0].second;
    const EpipolarFrame frame = frameOf(told);
    EXPECT_LT(cv::norm(rotationOf(frame) - told.right.rotation) + cv::norm(translationOf(frame) - told.right.translation), 1e-9);
    for (const cv::Vec3d& degrees : {cv::Vec3d(0.05, 0, 0), {-0.3, 0, 0}, {0, 0, 0.2}, {0.15, 0.1, -0.1}}) {
        const scene::Rig truth = turned(told, degrees);
        Measured measured(0.03);
        std::array<std::vector<MarkerEstimate>, 2> markers;
        for (const scene::Disc& disc : scene::makeScatteredDiscs(truth, 60, 8, 20, 40, 200, 5))
            markers[0].push_back(measured(truth.left, disc)), markers[1].push_back(measured(truth.right, disc));
        const std::vector<RigMotion> motions = searchMotions(viewsOf({&markers[0], &markers[1]}, frame));
        ASSERT_FALSE(motions.empty());
        EXPECT_NEAR(motions[0].sigma, 0.03 * std::sqrt(2), 0.006);
        const EpipolarFrame found = movedFrame(frame, motions[0]);
        EXPECT_NEAR(turnBetween(frame, found) * 180 / CV_PI, cv::norm(degrees), 0.005);
        EXPECT_NEAR(cv::norm(translationOf(found)), cv::norm(told.right.translation), 1e-9);
        cv::Vec3d off;
        cv::Rodrigues(rotationOf(found) * truth.right.rotation.t(), off);
        off *= 180 / CV_PI;
        EXPECT_TRUE(std::hypot(off[0], off[2]) < 0.003 && std::abs(off[1]) < 0.02)
            << degrees << off;  // epipolar lines tell little of a turn to the side
    }
}

TEST(Holes, AreAsProbableAsAnUnknownShareMakesThem) {
    EXPECT_NEAR((Holes{{3, 2}, {1, 5}}.logEvidence()), -std::log(20 * 168.0), 1e-9);  // 3! 1! / 5! and 2! 5! / 8!
    EXPECT_EQ((Holes{}.logEvidence()), 0);
}

}  // namespace kestrune::test::matching_parts
