// SPDX-License-Identifier: Apache-2.0
#include <Eigen/Geometry>
#include <random>

#include "refinement/disc_projection.h"
#include "support/calls.h"
#include "support/configs.h"
#include "support/ellipses.h"

namespace kestrune::test::discs {

const scene::Rig& theRig() {
    static const scene::Rig rig = scene::makeVergedRig({2448, 2048});
    return rig;
}

RigMatrices ideal() {
    return idealRig(theRig());
}

using Pair = std::array<MarkerEstimate, 2>;

Pair seen(const scene::Disc& disc, const Covariance& covariance = 1e-4 * Covariance::eye()) {
    return {estimateOf(ellipseOf(projectDisc(theRig().left, disc)), covariance),
            estimateOf(ellipseOf(projectDisc(theRig().right, disc)), covariance)};
}

/// A disc in front of the left eye, tilted about an axis in its plane.
scene::Disc discOf(double tilt, double about, const cv::Vec3d& centre = {20, -30, 900}, double radius = 4) {
    cv::Matx33d turn;
    cv::Rodrigues(cv::Vec3d(std::cos(about), std::sin(about), 0) * (tilt * CV_PI / 180), turn);
    return {centre, turn * -cv::normalize(centre), radius, 200};
}

TEST(SmoothEllipse, HasTheMatricesOfARimInSpace) {
    for (const double tilt : {0.0, 20.0, 70.0}) {
        const scene::Disc d = discOf(tilt, 0.4);
        const scene::EllipseTruth truth = projectDisc(theRig().left, d);
        const cv::Matx33d& K = theRig().left.intrinsic;
        const cv::Matx33d dual = K * (d.centre * d.centre.t() - d.radius * d.radius * (cv::Matx33d::eye() - d.normal * d.normal.t())) * K.t();
        const SmoothEllipse e = ellipseOf(truth);
        for (const double scale : {1.0, -3.0}) EXPECT_LT(cv::norm(numbersOf(geometry::ellipseOfDual(scale * dual)) - numbersOf(e)), 1e-6);
        const geometry::Conic conic = geometry::conicOf(geometry::matrixOf(e));
        for (std::size_t k = 0; k < 6; ++k) EXPECT_NEAR(conic[k], truth.conic[k], 1e-10 * (1 + std::abs(truth.conic[k])));
        const cv::Matx33d unit = geometry::matrixOf(e) * geometry::dualOf(e) * -1.0;
        EXPECT_LT(cv::norm(unit - unit(0, 0) * cv::Matx33d::eye()), 1e-6) << unit;
    }
}

TEST(ProjectDisc, IsTheSceneWithTheDerivativesOfIt) {
    const geometry::Pinhole camera = geometry::Pinhole::of(cv::Mat(theRig().left.intrinsic));
    const Eigen::Vector3d centre(60, -80, 850), normal = Eigen::Vector3d(0.5, 0.3, -0.8).normalized();
    const SpaceDisc disc{centre, normal, 9};
    ProjectedDisc image, high, low;
    ASSERT_TRUE(projectDisc(disc, camera, image));
    const scene::Disc same{{60, -80, 850}, cv::Vec3d(normal.x(), normal.y(), normal.z()), 9, 200};
    EXPECT_LT(cv::norm(Five(image.ellipse.data()) - numbersOf(ellipseOf(projectDisc(theRig().left, same)))), 1e-9);
    const Eigen::Vector3d first = normal.unitOrthogonal(), second = normal.cross(first);
    for (int k = 0; k < 6; ++k) {
        Eigen::Matrix<double, 7, 1> along = Eigen::Matrix<double, 7, 1>::Zero();
        if (k < 3) along[k] = 1;
        if (k == 3) along.segment<3>(3) = first;
        if (k == 4) along.segment<3>(3) = second;
        if (k == 5) along[6] = 1;
        const double h = k == 3 || k == 4 ? 1e-5 : 1e-3;
        const auto at = [&](double step) {
            return SpaceDisc{centre + step * along.head<3>(), (normal + step * along.segment<3>(3)).normalized(), 9 + step * along[6]};
        };
        ASSERT_TRUE(projectDisc(at(h), camera, high) && projectDisc(at(-h), camera, low));
        EXPECT_LT((image.derivative * along - (high.ellipse - low.ellipse) / (2 * h)).norm(), 1e-6 * (1 + (image.derivative * along).norm())) << k;
    }
    for (const SpaceDisc& none : {SpaceDisc{{0, 0, -900}, normal, 4},
                                  {{0, 0, 3}, Eigen::Vector3d::UnitX(), 4},
                                  {centre, centre.cross(normal).normalized(), 4},
                                  {centre, normal, -1}})
        EXPECT_FALSE(projectDisc(none, camera, image));
}

TEST(MeasureDisc, GivesExactDiscsBack) {
    const std::vector<scene::Disc> discs = scene::makeScatteredDiscs(theRig(), 150, 5, 60, 65, 200, 3);
    std::size_t both = 0;
    for (const scene::Disc& disc : discs) {
        if (!projectDisc(theRig().right, disc).visible) continue;
        ++both;
        const DiscEstimate found = measureDisc(seen(disc), ideal());
        ASSERT_TRUE(found.found);
        EXPECT_LT(cv::norm(found.centre - disc.centre), 1e-9 * cv::norm(disc.centre));
        EXPECT_LT(cv::norm(found.normal - disc.normal), 1e-9);
        EXPECT_NEAR(found.radius, disc.radius, 1e-9 * disc.radius);
        EXPECT_LT(found.chiSquare, 1e-9);
        EXPECT_LT(cv::norm(found.tangents[0].cross(found.tangents[1]) - found.normal), 1e-12);
        EXPECT_EQ(cv::norm(found.calibrationCovariance), 0);
        const auto& [t0, t1] = found.tangents;
        const cv::Matx33d n = found.normalCovariance();
        const cv::Vec4d sides(t1.dot(n * t1), t0.dot(n * t0), -t0.dot(n * t1), cv::norm(n * found.normal));
        EXPECT_LT(cv::norm(sides - cv::Vec4d(found.covariance(3, 3), found.covariance(4, 4), found.covariance(3, 4), 0)), 1e-12);
        EXPECT_EQ(found.radiusSigma(), std::sqrt(found.covariance(5, 5)));
    }
    EXPECT_GT(both, 100u);
}

/// Noise of both eyes is this times independent draws: correlated, and unlike in all directions.
Covariance spreadOf(double sigma) {
    Covariance spread = Covariance::eye();
    spread(1, 0) = 0.5, spread(2, 0) = -0.3, spread(3, 2) = 0.4, spread(4, 1) = 0.3, spread(1, 1) = 0.6;
    return sigma * spread;
}

TEST(MeasureDisc, HasHonestSigmas) {
    struct Case {
        double tilt, about, radius, sigma;
    } cases[] = {{0, 0, 4, 0.01}, {8, 1.5, 4, 0.01}, {15, 0.5, 2, 0.01}, {30, 2.0, 4, 0.03}, {60, 0.5, 4, 0.03}, {70, 1.6, 2, 0.02}};
    for (const Case& c : cases) {
        const scene::Disc disc = discOf(c.tilt, c.about, {20, -30, 900}, c.radius);
        const Covariance spread = spreadOf(c.sigma), covariance = spread * spread.t();
        const cv::Matx<double, 5, 5> factor = spread.get_minor<5, 5>(0, 0);
        std::mt19937 random(11);
        std::normal_distribution<double> normal;
        cv::Vec<double, 6> squares;
        double chiSquare = 0;
        constexpr int kDraws = 2000;
        for (int draw = 0; draw < kDraws; ++draw) {
            Pair eyes = seen(disc, covariance);
            for (MarkerEstimate& eye : eyes) {
                Five noise;
                for (double& v : noise.val) v = normal(random);
                eye = estimateOf(ellipseOf(numbersOf(ellipseOf(eye)) + factor * noise), covariance);
            }
            const DiscEstimate found = measureDisc(eyes, ideal());
            ASSERT_TRUE(found.found) << c.tilt;
            const cv::Vec3d centre = found.centre - disc.centre, turned = disc.normal - found.normal;
            const double error[] = {
                centre[0], centre[1], centre[2], turned.dot(found.tangents[1]), -turned.dot(found.tangents[0]), found.radius - disc.radius};
            for (int k = 0; k < 6; ++k) squares[k] += error[k] * error[k] / found.covariance(k, k) / kDraws;
            chiSquare += found.chiSquare / kDraws;
        }
        for (int k = 0; k < 6; ++k) EXPECT_NEAR(std::sqrt(squares[k]), 1, 0.05) << c.tilt << ' ' << k;
        EXPECT_NEAR(chiSquare, 4, 0.3) << c.tilt;
    }
}

/// Rigs drawn from the standard deviations, with the images left as they are, against the covariance that is told.
TEST(MeasureDisc, TellsWhatTheCalibrationAddsToTheCentre) {
    RigMatrices rig = ideal();
    for (Camera& camera : rig.cameras) camera.distortion = (cv::Mat_<double>(1, 5) << -0.3, 0.1, 1e-3, -5e-4, 0);
    rig.uncertainty = {{{{0.8, 0.5, 0.6, 0.9}, {0.3, 0.7, 0.5, 0.4}}},
                       {{{2e-3, 0.02, 1e-4, 5e-5, 0.1}, {1e-3, 0.01, 5e-5, 1e-4, 0}}},
                       {1e-4, 5e-5, 2e-4},
                       {0.02, 0.05, 0.03}};
    const scene::Disc disc = discOf(25, 0.7, {70, 60, 950});
    Pair image = seen(disc);
    for (std::size_t eye = 0; eye < 2; ++eye) image[eye] = estimateOf(fittedEllipse(imagedRim(ellipseOf(image[eye]), rig.cameras[eye], 200)));
    const auto measured = [&](const RigMatrices& by) {
        return measureDisc({undistorted(image[0], by.cameras[0]), undistorted(image[1], by.cameras[1])}, by);
    };
    // The numbers of the uncertainty in their order, with the one of the rig that each is of.
    const auto number = [](RigUncertainty& u, std::size_t k) -> double& {
        if (k < 8) return u.cameras[k / 4][k % 4];
        if (k < 18) return u.distortions[(k - 8) / 5][(k - 8) % 5];
        return k < 21 ? u.rotation[k - 18] : u.translation[k - 21];
    };
    const auto changed = [&](std::size_t k, double by) {
        RigMatrices r{{}, rig.rotation.clone(), rig.translation.clone()};
        for (std::size_t eye = 0; eye < 2; ++eye) r.cameras[eye] = {rig.cameras[eye].matrix.clone(), rig.cameras[eye].distortion.clone(), {}};
        const int n = static_cast<int>(k);
        if (k < 8) r.cameras[k / 4].matrix.at<double>(n % 2, n % 4 < 2 ? n % 2 : 2) += by;
        if (k >= 8 && k < 18) r.cameras[(k - 8) / 5].distortion.at<double>((n - 8) % 5) += by;
        if (k >= 21) r.translation.at<double>(n - 21) += by;
        cv::Vec3d vector;
        cv::Rodrigues(rig.rotation, vector);
        if (k >= 18 && k < 21) vector[n - 18] += by;
        cv::Rodrigues(vector, r.rotation);
        return r;
    };
    RigUncertainty all = rig.uncertainty;
    cv::Matx33d sum = cv::Matx33d::zeros();
    for (std::size_t k = 0; k < 24; ++k) {
        const double sigma = number(all, k);
        rig.uncertainty = {};
        number(rig.uncertainty, k) = sigma;
        const cv::Matx33d found = measured(rig).calibrationCovariance;
        const cv::Vec3d move = 0.5 * (measured(changed(k, sigma)).centre - measured(changed(k, -sigma)).centre);
        EXPECT_LE(cv::norm(found - move * move.t()), (k < 8 || k > 17 ? 0.02 : 0.08) * move.dot(move)) << k;  // a lens is told of at the centre alone
        sum += found;
    }
    rig.uncertainty = all;
    EXPECT_LT(cv::norm(measured(rig).calibrationCovariance - sum), 1e-9 * cv::norm(sum));
}

TEST(MeasureDisc, FindsNoneWhereThereIsNone) {
    const Pair good = seen(discOf(20, 0.5));
    const auto with = [&](std::size_t eye, const auto& change) {
        Pair pair = good;
        change(pair[eye]);
        return pair;
    };
    scene::Disc back = discOf(0, 0);  // between the eyes: one sees its face, the other its back
    const cv::Vec3d toRight = cv::normalize(-(theRig().right.rotation.t() * theRig().right.translation) - back.centre),
                    toLeft = cv::normalize(-back.centre);
    back.normal = cv::normalize(toLeft - toRight);
    const Pair cases[] = {
        {good[1], good[0]},
        with(0, [](MarkerEstimate& e) { e.centre.x = kNaN; }),
        with(1, [](MarkerEstimate& e) { e.minorHalfAxis = 0; }),
        with(1, [](MarkerEstimate& e) { e.majorHalfAxis = kInf; }),
        with(0, [](MarkerEstimate& e) { e.covariance = Covariance::zeros(); }),
        with(0, [](MarkerEstimate& e) { e.covariance = -1.0 * Covariance::eye(); }),
        with(1, [](MarkerEstimate& e) { e.covariance(2, 2) = kNaN; }),
        with(1, [](MarkerEstimate& e) { e.centre.y += 100; }),                           // rays that do not meet
        with(1, [](MarkerEstimate& e) { e.centre.x += 1e5; }),                           // that meet behind
        with(1, [](MarkerEstimate& e) { e.majorHalfAxis *= 6, e.minorHalfAxis *= 6; }),  // another marker's size
        {MarkerEstimate{}, MarkerEstimate{}},
        seen(back),
    };
    EXPECT_TRUE(measureDisc(good, ideal()).found);
    for (const Pair& pair : cases) {
        const DiscEstimate found = measureDisc(pair, ideal());
        EXPECT_TRUE(!found.found && found.radius == 0 && found.chiSquare == 0) << &pair - cases;
    }
    // An eye that was not refined says little, and the other one does not suffer from it.
    const Pair half =
        with(1, [](MarkerEstimate& e) { e.covariance = cv::Matx<double, 8, 8>::eye(), e.status = RefinementStatus::notADisc, e.centre.x += 0.5; });
    const DiscEstimate found = measureDisc(half, ideal());
    ASSERT_TRUE(found.found);
    const cv::Vec3d off = found.centre - discOf(20, 0.5).centre;
    EXPECT_LT(off.dot(found.centreCovariance().inv() * off), 1);
    EXPECT_LT(cv::norm(found.normal - discOf(20, 0.5).normal), 0.1);
}

TEST(MeasureDisc, RefusesWhatIsNoRig) {
    const std::pair<const char*, std::function<void(RigMatrices&)>> cases[] = {
        {"cameras[0].matrix", [](RigMatrices& r) { r.cameras[0].matrix = cv::Mat(); }},
        {"cameras[1].matrix", [](RigMatrices& r) { r.cameras[1].matrix.at<double>(0, 0) = -1; }},
        {"cameras[1].distortion", [](RigMatrices& r) { r.cameras[1].distortion = cv::Mat::zeros(1, 3, CV_64F); }},
        {"rotation", [](RigMatrices& r) { r.rotation = cv::Mat(); }},
        {"rotation", [](RigMatrices& r) { r.rotation.at<double>(0, 0) += 1e-3; }},
        {"rotation", [](RigMatrices& r) { r.rotation = -r.rotation; }},
        {"translation", [](RigMatrices& r) { r.translation = cv::Mat::zeros(3, 1, CV_64F); }},
        {"translation", [](RigMatrices& r) { r.translation = cv::Mat::ones(4, 1, CV_64F); }},
        {"translation", [](RigMatrices& r) { r.translation.at<double>(1) = kNaN; }},
        {"translation", [](RigMatrices& r) { r.translation.data = nullptr; }},
        {"uncertainty.cameras[1]", [](RigMatrices& r) { r.uncertainty.cameras[1][2] = kNaN; }},
        {"uncertainty.rotation", [](RigMatrices& r) { r.uncertainty.rotation[0] = -1; }}};
    for (const auto& [name, change] : cases) {
        RigMatrices rig = ideal();
        change(rig);
        EXPECT_EQ(refused([&] { measureDisc({}, rig); }), name);
    }
    RigMatrices row = ideal();
    row.translation = row.translation.t();
    EXPECT_TRUE(measureDisc(seen(discOf(20, 0.5)), row).found);
}

}  // namespace kestrune::test::discs
