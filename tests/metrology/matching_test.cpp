// SPDX-License-Identifier: Apache-2.0
#include <kestrune/MarkerMetrology/matching.h>

#include <algorithm>
#include <functional>

#include "support/calls.h"
#include "support/matching.h"
#include "support/teams.h"

namespace kestrune::test::matching_test {

using Discs = std::vector<scene::Disc>;

const scene::Rig& theRig() {
    static const scene::Rig rig = rigOf({0.01, 0.27, 0.02}, {250, 3, 6});
    return rig;
}

std::size_t at(int index) {
    return static_cast<std::size_t>(index);
}

/// Along the baseline and across it.
std::array<cv::Vec3d, 2> axesOfLevelGrid() {
    const cv::Vec3d along = cv::normalize(-(theRig().right.rotation.t() * theRig().right.translation));
    return {along, cv::normalize(cv::Vec3d(0, 1, 0) - along[1] * along)};
}

/// What both eyes see of discs, each in an order of its own.
struct Sights {
    std::array<std::vector<MarkerEstimate>, 2> markers;
    std::array<std::vector<int>, 2> disc;

    bool isSeen(std::size_t eye, int number) const { return std::count(disc[eye].begin(), disc[eye].end(), number) > 0; }
    std::size_t both() const {
        return static_cast<std::size_t>(std::count_if(disc[0].begin(), disc[0].end(), [&](int d) { return isSeen(1, d); }));
    }
    void reorder(unsigned seed) {
        for (std::size_t eye = 0; eye < 2; ++eye) {
            std::shuffle(markers[eye].begin(), markers[eye].end(), std::mt19937(seed));
            std::shuffle(disc[eye].begin(), disc[eye].end(), std::mt19937(seed));
        }
    }
    StereoMatch match(const MatchOptions& options = {}) const { return matchMarkers(markers[0], markers[1], idealRig(theRig()), options); }
};

struct Look {
    std::function<bool(std::size_t, int)> isHidden = [](std::size_t, int) { return false; };  ///< an eye, the number of a disc
    double noise = 0.05, told = 0;
    scene::Rig rig = theRig();

    Sights operator()(const Discs& discs) const {
        Sights sights;
        Measured measured(noise);
        for (std::size_t eye = 0; eye < 2; ++eye) {
            const scene::PinholeCamera& camera = eye == 0 ? rig.left : rig.right;
            for (int d = 0; d < static_cast<int>(discs.size()); ++d) {
                if (isHidden(eye, d) || !projectDisc(camera, discs[at(d)]).visible) continue;
                sights.markers[eye].push_back(measured(camera, discs[at(d)], told)), sights.disc[eye].push_back(d);
            }
        }
        sights.reorder(1);
        return sights;
    }
};

Discs object(std::uint64_t seed = 3, int count = 60) {
    return scene::makeScatteredDiscs(theRig(), count, 8, 20, 40, 200, seed);
}

bool everyFifth(std::size_t eye, int disc) {
    return disc % 5 == static_cast<int>(eye);
}

void expectAllSure(const StereoMatch& match, const Sights& sights, MatchObjection objection = MatchObjection::none) {
    EXPECT_STREQ(nameOf(match.objection), nameOf(objection)) << match.reason;
    EXPECT_EQ(match.reason.empty(), objection == MatchObjection::none);
    EXPECT_EQ(match.pairs.size(), sights.both());
    for (const MatchedPair& p : match.pairs) EXPECT_TRUE(p.sure && sights.disc[0][at(p.left)] == sights.disc[1][at(p.right)]) << p.probability;
}

void expectNoneSure(const StereoMatch& match, MatchObjection objection) {
    EXPECT_STREQ(nameOf(match.objection), nameOf(objection)) << match.reason;
    EXPECT_NE(match.reason, "");
    EXPECT_TRUE(std::none_of(match.pairs.begin(), match.pairs.end(), [](const MatchedPair& p) { return p.sure || p.probability > 0.5; }));
}

TEST(MatchMarkers, IsRightAndSureOfIt) {
    const std::pair<const char*, Sights> cases[] = {
        {"scattered", Look{}(object())},
        {"bent", Look{}(scene::makeCurvedObject(theRig(), 60, 3, 5, 200, 2))},
        {"each eye misses some", Look{.isHidden = everyFifth}(object(4))},
        {"sharp", Look{.noise = 0.01}(object())},
        {"sigmas told too small", Look{.noise = 0.09, .told = 0.05}(object())},
        {"sigmas told too large", Look{.noise = 0.03, .told = 0.06}(object())},
        {"four", Look{}(object(3, 4))},
    };
    for (const auto& [name, sights] : cases) {
        SCOPED_TRACE(name);
        expectAllSure(sights.match(), sights);
    }
}

TEST(MatchMarkers, TellsHowWellPairsAgree) {
    const Discs discs = object(4);
    const Sights sights = Look{.isHidden = everyFifth, .noise = 0.06, .told = 0.04}(discs);
    const StereoMatch match = sights.match();
    EXPECT_NEAR(match.centreScale, 1.5, 0.3);
    EXPECT_NEAR(match.shapeScale, 1.5, 0.3);
    double epipolar = 0, shape = 0, centre = 0;
    for (const MatchedPair& pair : match.pairs) {
        const cv::Vec3d off = pair.disc.centre - discs[at(sights.disc[0][at(pair.left)])].centre;
        centre += off.dot(pair.disc.centreCovariance().inv() * off) / static_cast<double>(match.pairs.size());
        EXPECT_NEAR(pair.cues.epipolarSigma, 0.06 * std::sqrt(2), 0.02);
        epipolar += std::pow(pair.cues.epipolar / 0.06, 2) / static_cast<double>(match.pairs.size());
        shape += pair.cues.shape / static_cast<double>(match.pairs.size());
    }
    EXPECT_NEAR(epipolar, 2, 0.8);  // of both eyes
    EXPECT_NEAR(shape, 3, 0.8);
    EXPECT_NEAR(centre, 3, 1.2);
    for (std::size_t eye = 0; eye < 2; ++eye)
        for (std::size_t i = 0; i < sights.disc[eye].size(); ++i)
            EXPECT_NEAR(match.single[eye][i], sights.isSeen(1 - eye, sights.disc[eye][i]) ? 0 : 1, 1e-3);
    const StereoMatch sharp = Look{.noise = 0.003, .told = 0.002}(discs).match();
    EXPECT_NEAR(sharp.centreScale, 1.5, 0.4);
    EXPECT_NEAR(sharp.shapeScale, 1.5, 0.4);
    MatchOptions believed;
    believed.estimateSigmas = false;
    const StereoMatch before = sights.match(believed);
    EXPECT_EQ(before.centreScale, 1);
    Sights moved = sights;
    moved.markers[1][at(before.pairs[0].right)].centre.y += 0.05;
    const PairCues &was = before.pairs[0].cues, is = moved.match(believed).pairs[0].cues;
    const double sigma2 = was.epipolarSigma * was.epipolarSigma;
    EXPECT_NEAR(was.geometry - is.geometry, 0.5 * (is.epipolar * is.epipolar - was.epipolar * was.epipolar) / sigma2, 0.2);
}

/// All that a match tells, by discs, to the bit.
std::vector<std::string> tellingsOf(const StereoMatch& match, const Sights& sights) {
    std::vector<std::string> lines;
    const auto add = [&](int left, int right, const std::vector<double>& numbers) {
        lines.push_back(cv::format("%d %d:", left < 0 ? -1 : sights.disc[0][at(left)], right < 0 ? -1 : sights.disc[1][at(right)]));
        for (const double number : numbers) lines.back() += cv::format(" %a", number);
    };
    for (const MatchedPair& p : match.pairs) {
        const PairCues& c = p.cues;
        add(p.left, p.right, {p.probability, p.disc.centre[2], p.disc.radius});
        add(p.left, p.right, {c.epipolar, c.epipolarSigma, c.shape, c.geometry, c.radius, c.depth, c.normal, c.grey});
        for (const PairChance& r : p.rivals) add(r.left, r.right, {r.probability});
    }
    for (const PairChance& r : match.rivals) add(r.left, r.right, {r.probability});
    for (std::size_t i = 0; i < match.single[0].size(); ++i) add(static_cast<int>(i), -1, {match.single[0][i]});
    for (std::size_t i = 0; i < match.single[1].size(); ++i) add(-1, static_cast<int>(i), {match.single[1][i]});
    add(-1, -1, {match.centreScale, match.shapeScale, match.moved.size});
    std::sort(lines.begin(), lines.end());
    return lines;
}

TEST(MatchMarkers, DependsOnNeitherOrderNorThreads) {
    SharedLoops shared;
    Sights sights = Look{.isHidden = everyFifth, .noise = 0.3, .rig = turned(theRig(), {0.1, 0, 0})}(object(4));
    omp_set_num_threads(1);
    const std::vector<std::string> one = tellingsOf(sights.match(), sights);
    omp_set_num_threads(2);
    EXPECT_EQ(tellingsOf(sights.match(), sights), one);
    sights.reorder(7);
    EXPECT_EQ(tellingsOf(sights.match(), sights), one);
}

TEST(MatchMarkers, ObjectsToExposuresThatCannotBeBelieved) {
    const Sights good = Look{}(object());
    const RigMatrices rig = idealRig(theRig());
    expectNoneSure(matchMarkers(good.markers[1], good.markers[0], rig), MatchObjection::eyesExchanged);
    for (const std::uint64_t seed : {11U, 12U, 13U})
        expectNoneSure(matchMarkers(good.markers[0], Look{}(object(seed)).markers[1], rig), MatchObjection::nothingMatches);
    expectNoneSure(matchMarkers(good.markers[0], good.markers[1], idealRig(rigOf({0.3, 0.5, 0.1}, {400, 100, 6}))), MatchObjection::nothingMatches);
    for (const int count : {0, 1, 2}) expectNoneSure(Look{}(object(3, count)).match(), MatchObjection::tooFew);
    const StereoMatch left = matchMarkers(good.markers[0], {}, rig);
    expectNoneSure(left, MatchObjection::tooFew);
    EXPECT_EQ(left.single[0], std::vector<double>(good.markers[0].size(), 1.0));
}

TEST(MatchMarkers, CorrectsCamerasThatTurned) {
    for (const cv::Vec3d& degrees : {cv::Vec3d(0.0005, 0, 0), {0.03, 0, 0}, {-0.2, 0, 0.05}, {0, 0, -0.15}, {0.3, 0, 0}}) {
        SCOPED_TRACE(degrees);
        const scene::Rig truth = turned(theRig(), degrees);
        const Discs discs = object();
        const Sights sights = Look{.noise = 0.03, .rig = truth}(discs);
        const StereoMatch match = sights.match();
        const bool isMuch = cv::norm(degrees) > 0.01;
        expectAllSure(match, sights, isMuch ? MatchObjection::rigMoved : MatchObjection::none);
        ASSERT_EQ(match.moved.found, isMuch);
        if (!isMuch) continue;
        double squares = 0;
        for (const scene::Disc& disc : discs)
            squares += std::pow(projectPoint(truth.right, disc.centre).y - projectPoint(theRig().right, disc.centre).y, 2) /
                       static_cast<double>(discs.size());
        EXPECT_NEAR(match.moved.size, std::sqrt(squares), 0.04 * std::sqrt(squares));
        EXPECT_NEAR(match.moved.angle, cv::norm(degrees), 0.01);
        EXPECT_LT(cv::norm(match.moved.rotation - truth.right.rotation), 0.01 * CV_PI / 180);
        EXPECT_NEAR(cv::norm(match.moved.translation), cv::norm(theRig().right.translation), 1e-9);
    }
}

TEST(MatchMarkers, TellsOfAPatternThatRepeats) {
    // Along the baseline. Of eight columns the left eye does not see the last and the right one not the first.
    constexpr double kPitch = 20, kRadius = 5;
    const auto [along, down] = axesOfLevelGrid();
    Discs discs;
    for (int k = 0; k < 48; ++k)
        discs.push_back({cv::Vec3d(0, 0, 900) + kPitch * ((k % 8 - 3.5) * along + (k / 8 - 2.5) * down), -along.cross(down), kRadius, 200});
    const Sights sights = Look{.isHidden = [](std::size_t eye, int d) { return d % 8 == (eye == 0 ? 7 : 0); }}(discs);

    const StereoMatch match = sights.match();
    expectNoneSure(match, MatchObjection::patternRepeats);
    EXPECT_NEAR(match.repeat, kPitch, 2);
    EXPECT_NE(match.reason.find(cv::format("repeats every %.4g: give the radii to", match.repeat)), std::string::npos) << match.reason;
    EXPECT_GT(std::count_if(match.pairs.begin(), match.pairs.end(), [](const MatchedPair& p) { return p.decider == Decider::nominalRadius; }), 30);
    MatchOptions vague, depth;
    vague.radii = {kRadius}, vague.radiusTolerance = 0.3, depth.depth = {880, 920};
    expectNoneSure(sights.match(vague), MatchObjection::patternRepeats);
    expectAllSure(sights.match(depth), sights);
    vague.radiusTolerance = 0.01;
    const StereoMatch known = sights.match(vague);
    EXPECT_EQ(known.objection, MatchObjection::none) << known.reason;
    EXPECT_EQ(static_cast<std::size_t>(
                  std::count_if(known.pairs.begin(), known.pairs.end(),
                                [&](const MatchedPair& p) { return p.sure && sights.disc[0][at(p.left)] == sights.disc[1][at(p.right)]; })),
              sights.both());
    EXPECT_EQ(static_cast<std::size_t>(std::count_if(known.pairs.begin(), known.pairs.end(), [](const auto& p) { return p.sure; })), sights.both());
}

/// Level rows whose columns repeat nowhere; each eye has one column that the other one does not see.
TEST(MatchMarkers, IsNotSureOfColumnsThatAreLeftOver) {
    const auto [along, down] = axesOfLevelGrid();
    for (const double scatter : {1.0, 3.0, 6.0}) {
        for (unsigned seed = 1; seed < 9; ++seed) {
            std::mt19937 random(seed);
            std::uniform_real_distribution<double> u(-scatter, scatter);
            std::array<double, 8> columns;
            for (double& column : columns) column = u(random);
            Discs discs;
            for (int k = 0; k < 48; ++k)
                discs.push_back({cv::Vec3d(0, 0, 900) + (20 * (k % 8 - 3.5) + columns[at(k % 8)]) * along + 20 * (k / 8 - 2.5) * down,
                                 -along.cross(down), 5, 200});
            const Sights sights = Look{.isHidden = [](std::size_t eye, int d) { return d % 8 == (eye == 0 ? 7 : 0); }}(discs);
            std::size_t wrong = 0;
            for (const MatchedPair& p : sights.match().pairs)
                if (p.sure && sights.disc[0][at(p.left)] != sights.disc[1][at(p.right)]) ++wrong;
            EXPECT_EQ(wrong, 0U) << scatter << ' ' << seed;
        }
    }
}

/// Of twelve columns each eye sees all but some at its end: shifted by as many, all that is seen agrees at another depth.
TEST(MatchMarkers, DecidesByRadiiHowAGridIsShifted) {
    const auto [along, down] = axesOfLevelGrid();
    MatchOptions known;
    known.radii = {5};
    std::size_t right = 0, wrong = 0;
    for (int leftOver = 2; leftOver < 7; ++leftOver) {
        Discs discs;
        for (int k = 0; k < 72; ++k)
            discs.push_back({cv::Vec3d(0, 0, 900) + 20 * ((k % 12 - 5.5) * along + (k / 12 - 2.5) * down), -along.cross(down), 5, 200});
        const Sights sights = Look{.isHidden = [&](std::size_t eye, int d) { return eye == 0 ? d % 12 >= 12 - leftOver : d % 12 < leftOver; }}(discs);
        for (const MatchedPair& p : sights.match(known).pairs)
            if (p.sure) ++(sights.disc[0][at(p.left)] == sights.disc[1][at(p.right)] ? right : wrong);
    }
    EXPECT_EQ(wrong, 0U);
    EXPECT_GT(right, 70U);  // two and three are decided, more markers than agree by the right radius are not
}

/// A range of depths takes out candidates; those that are left must not seem to be less for it.
TEST(MatchMarkers, IsNoLessSureWhereDepthsAreKnown) {
    MatchOptions known;
    known.depth = {700, 1100};
    std::size_t without = 0, with = 0;
    for (std::uint64_t seed = 1; seed < 9; ++seed) {
        const Sights sights = Look{.isHidden = everyFifth, .noise = 0.3}(object(seed, 80));
        for (const auto& [options, count] : {std::make_pair(MatchOptions{}, &without), std::make_pair(known, &with)}) {
            const StereoMatch match = sights.match(options);
            *count += static_cast<std::size_t>(
                std::count_if(match.pairs.begin(), match.pairs.end(), [](const auto& p) { return p.probability > 0.99999; }));
        }
    }
    EXPECT_GE(with, without);
}

TEST(MatchMarkers, PairsNoDarkMarkerWithABrightOne) {
    Sights sights = Look{}(object());
    std::swap(sights.markers[1][20].inside, sights.markers[1][20].outside), sights.disc[1][20] = -1;
    expectAllSure(sights.match(), sights);
    for (MarkerEstimate& marker : sights.markers[1]) marker.inside = 40, marker.outside = 200;
    expectNoneSure(sights.match(), MatchObjection::nothingMatches);
}

TEST(MatchMarkers, LeavesOutWhatIsNoMarker) {
    const std::pair<const char*, std::function<void(MarkerEstimate&)>> cases[] = {
        {"centre", [](MarkerEstimate& e) { e.centre.x = kNaN; }},
        {"axis", [](MarkerEstimate& e) { e.minorHalfAxis = -1; }},
        {"far away", [](MarkerEstimate& e) { e.centre.y = 1e300; }},
        {"no covariance", [](MarkerEstimate& e) { e.covariance = Covariance::zeros(); }},
        {"negative covariance", [](MarkerEstimate& e) { e.covariance *= -1; }},
        {"infinite covariance", [](MarkerEstimate& e) { e.covariance(3, 2) = kInf; }},
        {"no ellipse", [](MarkerEstimate& e) { e = plainEstimate(Corner{}); }},
    };
    for (const auto& [name, change] : cases) {
        for (std::size_t eye = 0; eye < 2; ++eye) {
            SCOPED_TRACE(name);
            Sights sights = Look{}(object());
            change(sights.markers[eye][20]), sights.disc[eye][20] = -1;
            const StereoMatch match = sights.match();
            expectAllSure(match, sights);
            EXPECT_EQ(match.single[eye][20], 1);
        }
    }
}

TEST(MatchMarkers, SharesWhatAMarkerThatIsGivenTwiceHas) {
    Sights sights = Look{}(object());
    const int copy = static_cast<int>(sights.markers[0].size());
    sights.markers[0].push_back(sights.markers[0][20]), sights.disc[0].push_back(sights.disc[0][20]);
    const StereoMatch match = sights.match();
    for (const MatchedPair& p : match.pairs) {
        EXPECT_EQ(p.sure, p.left != 20);
        if (p.sure) continue;
        EXPECT_NEAR(p.probability, 0.5, 1e-3);
        ASSERT_EQ(p.rivals.size(), 1U);
        EXPECT_TRUE(p.rivals[0].left == copy && p.rivals[0].right == p.right && p.rivals[0].probability == p.probability);
        EXPECT_EQ(match.single[0][at(copy)], match.single[0][20]);
        EXPECT_LT(match.single[1][at(p.right)], 1e-3);
    }
    EXPECT_EQ(match.rivals.size(), 1U);
}

TEST(MatchMarkers, RefusesWhatIsOutOfRange) {
    const char* const ofObject = "object: a marker's place, radius or sigma is not a number, or not in its range";
    const std::pair<const char*, std::function<void(MatchOptions&)>> cases[] = {
        {"radii: -1 is no radius",
         [](MatchOptions& o) {
             o.radii = {4, -1};
         }},
        {"radii: nan is no radius", [](MatchOptions& o) { o.radii = {kNaN}; }},
        {"radiusTolerance: 0 is not between 0 and 1", [](MatchOptions& o) { o.radiusTolerance = 0; }},
        {"depth: 900 to 800 is no range in front of the cameras",
         [](MatchOptions& o) {
             o.depth = {900, 800};
         }},
        {"depth: -1 to 800 is no range in front of the cameras",
         [](MatchOptions& o) {
             o.depth = {-1, 800};
         }},
        {"depth: 0 to inf is no range in front of the cameras",
         [](MatchOptions& o) {
             o.depth = {0, kInf};
         }},
        {"sure: 0.5 is not above 0.5 and below 1", [](MatchOptions& o) { o.sure = 0.5; }},
        {"sure: nan is not above 0.5 and below 1", [](MatchOptions& o) { o.sure = kNaN; }},
        {ofObject,
         [](MatchOptions& o) {
             o.object = {{{0, 0, kNaN}, 1, 1}};
         }},
        {ofObject,
         [](MatchOptions& o) {
             o.object = {{{0, 0, 1}, -1, 1}};
         }},
        {ofObject,
         [](MatchOptions& o) {
             o.object = {{{0, 0, 1}, 0, 0}};
         }},
    };
    for (const auto& [text, change] : cases) {
        MatchOptions options;
        change(options);
        std::string told;
        try {
            matchMarkers({}, {}, idealRig(theRig()), options);
        } catch (const cv::Exception& e) {
            told = e.code == cv::Error::StsBadArg ? e.err : e.msg;
        }
        EXPECT_EQ(told, text);
    }
    EXPECT_EQ(refused([] { matchMarkers({}, {}, RigMatrices{}); }), "cameras[0].matrix");
}

TEST(PlainEstimate, IsTheEllipseOfARecord) {
    Corner corner{};
    corner.x = 100.25, corner.y = 50.5, corner.ellipse = {{100, 50}, {20, 30}, 30}, corner.fitError = 0.2F;
    corner.contour.resize(80);
    const MarkerEstimate found = plainEstimate(corner);
    EXPECT_NE(found.status, RefinementStatus::refined);
    EXPECT_LT(cv::norm(numbersOf(ellipseOf(found)) - numbersOf(SmoothEllipse::of({100.25, 50.5}, 15, 10, 120 * CV_PI / 180))), 1e-5);
    EXPECT_TRUE(std::isnan(found.inside) && std::isnan(found.outside));
    for (int k = 0; k < 5; ++k) EXPECT_NEAR(found.covariance(k, k), (k == 2 ? 1 : 2) * 0.2 * 0.2 / 20, 1e-8);
    corner.conic = geometry::conicOf(geometry::matrixOf(SmoothEllipse{70, 80, 12, 1, 2})), corner.conicValid = true, corner.fitResidual = 0.05F;
    const MarkerEstimate ofConic = plainEstimate(corner);
    EXPECT_LT(cv::norm(numbersOf(ellipseOf(ofConic)) - Five(70, 80, 12, 1, 2)), 1e-6);
    EXPECT_NEAR(ofConic.covariance(2, 2), 0.3 * 0.3 / 20, 1e-8);  // the residual is of squared radii, as a share
    corner.fitResidual = 1e200;                                   // as good as not known
    EXPECT_NEAR(plainEstimate(corner).covariance(2, 2), 0.3 * 0.3 / 20, 1e-8);
}

}  // namespace kestrune::test::matching_test
