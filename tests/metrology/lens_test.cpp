// SPDX-License-Identifier: Apache-2.0
#include "refinement/lens.h"
#include "refinement/lens_model.h"
#include "support/calls.h"
#include "support/configs.h"
#include "support/ellipses.h"

namespace kestrune::test::lens {

Camera cameraOf(double focal, const std::vector<double>& lens) {
    return {(cv::Mat_<double>(3, 3) << focal, 0, 1230, 0, 1.01 * focal, 1015, 0, 0, 1), cv::Mat(lens, true).reshape(1, 1), {}};
}

const std::vector<double> kLenses[] = {{-0.3, 0.1, 1e-3, -5e-4},
                                       {0.2, -0.1, -1e-3, 5e-4, 0.05},
                                       {-0.3, 0.1, 1e-3, -5e-4, 0.02, 0.05, 0.03, -0.01},
                                       {-0.3, 0.1, 1e-3, -5e-4, 0.02, 0.05, 0.03, -0.01, 1e-3, -2e-3, 3e-3, 1e-3},
                                       {-0.3, 0.1, 1e-3, -5e-4, 0.02, 0.05, 0.03, -0.01, 1e-3, -2e-3, 3e-3, 1e-3, 0.03, -0.02}};

TEST(LensModel, IsThatOfOpenCVBothWays) {
    for (const std::vector<double>& k : kLenses) {
        const Camera camera = cameraOf(2000, k);
        const LensModel model(camera);
        for (const cv::Point2d& p : {cv::Point2d(1230, 1015), {30, 40}, {2400, 1900}, {900, 2040}}) {
            const cv::Point2d image = imagedRim({p.x, p.y, 0, 0, 0}, camera, 1)[0];
            EXPECT_LT(cv::norm(model.distortedPixel(p) - image), 1e-9) << k.size();
            EXPECT_LT(cv::norm(model.undistortedPixel(image) - p), 1e-8) << k.size();
            const LensPoint d = model.distortedWithDerivatives(p);
            const cv::Point2d h(1e-3, 0), v(0, 1e-3);
            const cv::Point2d byX = 500 * (model.distortedPixel(p + h) - model.distortedPixel(p - h));
            const cv::Point2d byY = 500 * (model.distortedPixel(p + v) - model.distortedPixel(p - v));
            EXPECT_LT(std::abs(byX.x - d.xx) + std::abs(byX.y - d.yx) + std::abs(byY.x - d.xy) + std::abs(byY.y - d.yy), 1e-8) << k.size();
        }
    }
}

/// The ellipse nearest to a dense rim behind the lens, fitted by plain distances, must lead back to the rim's own one.
TEST(Undistorted, LeavesNoBiasOfTheLens) {
    for (const double focal : {3000.0, 1500.0}) {
        double worst = 0, worstAxis = 0, asPoint = 0;
        for (const auto& [radius, tilt] : {std::pair(12, 40), {80, 0}, {80, 35}, {80, 70}})
            for (const cv::Point2d& p : {cv::Point2d(1224, 1024), {600, 1024}, {100, 100}})
                for (const double angle : {0.0, 0.7, 2.0}) {
                    const Camera camera = cameraOf(focal, {-0.3, 0.1, 1e-3, -5e-4, 0});
                    const SmoothEllipse e = SmoothEllipse::of(p, radius, radius * std::cos(tilt * CV_PI / 180), angle);
                    const SmoothEllipse behind = fittedEllipse(imagedRim(e, camera, 240));
                    const SmoothEllipse found = ellipseOf(undistorted(estimateOf(behind), camera));
                    worst = std::max(worst, std::hypot(found.x - e.x, found.y - e.y));
                    worstAxis = std::max(worstAxis, std::abs(found.majorHalfAxis() - e.majorHalfAxis()));
                    asPoint = std::max(asPoint, cv::norm(LensModel(camera).undistortedPixel({behind.x, behind.y}) - p));
                    EXPECT_LT(cv::norm(numbersOf(distortedEllipse(e, camera)) - numbersOf(behind)), 0.01);
                }
        EXPECT_LT(worst, focal > 2000 ? 1e-4 : 1e-3) << "of " << asPoint << " px by the map of points";
        EXPECT_LT(worstAxis, focal > 2000 ? 1e-3 : 5e-3);
        EXPECT_GT(asPoint, 0.3);
    }
    for (const std::vector<double>& k : kLenses) {
        const Camera camera = cameraOf(2500, k);
        const SmoothEllipse e = SmoothEllipse::of({500, 300}, 40, 25, 1.2);
        const MarkerEstimate found = undistorted(estimateOf(fittedEllipse(imagedRim(e, camera, 240))), camera);
        EXPECT_LT(cv::norm(numbersOf(ellipseOf(found)) - numbersOf(e)), 1e-3) << k.size();
    }
}

TEST(Undistorted, CarriesTheCovarianceByItsJacobian) {
    const Camera camera = cameraOf(2000, kLenses[4]);
    Covariance spread;
    cv::theRNG().state = 7;
    cv::randn(spread, 0, 0.03);
    const SmoothEllipse behind = SmoothEllipse::of({400, 1700}, 60, 22, 0.6);
    const auto at = [&](const Five& v) { return numbersOf(ellipseOf(undistorted(estimateOf(ellipseOf(v)), camera))); };
    Covariance map = Covariance::eye();
    for (int k = 0; k < 5; ++k) {
        Five step;
        step[k] = 0.01;
        const Five change = 50 * (at(numbersOf(behind) + step) - at(numbersOf(behind) - step));
        for (int row = 0; row < 5; ++row) map(row, k) = change[row];
    }
    const Covariance given = spread * spread.t();
    const MarkerEstimate found = undistorted(estimateOf(behind, given), camera);
    EXPECT_LT(cv::norm(found.covariance - map * given * map.t()), 2e-3 * cv::norm(given));
    EXPECT_EQ(cv::norm(found.covariance - found.covariance.t()), 0);
    EXPECT_GT(cv::norm(found.covariance - given), 0.1 * cv::norm(given));
}

TEST(Undistorted, TellsWhereTheLensFolds) {
    struct Case {
        double k1, k2, x;
        bool isKept;
    } cases[] = {{-0.3, 0, 100, true},    {-2, 0, 900, true},     {-2, 0, 100, false}, {-2, 0, -1e5, false},
                 {-0.3, 0, 1e300, false}, {1e300, 0, 100, false}, {-3, 3, 930, true},  {-3, 3, -170, false}};  // beyond a fold and back
    for (const Case& c : cases)
        for (const RefinementStatus status : {RefinementStatus::refined, RefinementStatus::touchesAnother}) {
            MarkerEstimate given = estimateOf(SmoothEllipse::of({c.x, 1000}, 20, 15, 1));
            given.status = status, given.inside = 200;
            const MarkerEstimate found = undistorted(given, cameraOf(2000, {c.k1, c.k2, 0, 0}));
            EXPECT_EQ(std::isfinite(found.centre.x + found.minorHalfAxis + cv::sum(found.covariance)[0]), c.isKept) << c.k1 << ' ' << c.x;
            EXPECT_EQ(found.status, c.isKept || !given.isRefined() ? status : RefinementStatus::notConverged) << c.k1 << ' ' << c.x;
            EXPECT_EQ(found.inside, 200);
            EXPECT_EQ(distortedEllipse({1e4, 1000, 10, 0, 0}, cameraOf(2000, {-2, 0, 0, 0})).isFinite(), false);
        }
    MarkerEstimate given = estimateOf(SmoothEllipse::of({100, 100}, 20, 15, 1));
    for (const Camera& ideal : {cameraOf(2000, {0, 0, 0, 0}), Camera{cameraOf(2000, {0}).matrix, {}, {}}})
        EXPECT_EQ(undistorted(given, ideal).centre, given.centre);
    given.status = RefinementStatus::noOutline, given.minorHalfAxis = given.majorHalfAxis = 0;
    const Camera camera = cameraOf(2000, kLenses[1]);
    const cv::Point2d point = undistorted(given, camera).centre;
    const SmoothEllipse back = distortedEllipse({point.x, point.y, 0, 0, 0}, camera);
    EXPECT_LT(cv::norm(cv::Point2d(back.x, back.y) - given.centre), 1e-8);
    EXPECT_GT(cv::norm(point - given.centre), 10);
}

TEST(Undistorted, RefusesWhatIsNoCamera) {
    const Camera good = cameraOf(2000, {0.1, 0, 0, 0, 0});
    const auto with = [&](int row, int column, double value) {
        Camera camera{good.matrix.clone(), good.distortion, {}};
        camera.matrix.at<double>(row, column) = value;
        return camera;
    };
    cv::Mat single;
    good.matrix.convertTo(single, CV_32F);
    const auto lens = [&](const cv::Mat& coefficients) { return Camera{good.matrix, coefficients, {}}; };
    const std::pair<Camera, const char*> cases[] = {{{}, "camera.matrix"},
                                                    {with(0, 0, 0), "camera.matrix"},
                                                    {with(1, 1, -5), "camera.matrix"},
                                                    {with(0, 2, kNaN), "camera.matrix"},
                                                    {with(0, 1, 1), "camera.matrix"},
                                                    {with(2, 2, 2), "camera.matrix"},
                                                    {{single, good.distortion, {}}, "camera.matrix"},
                                                    {{hollow(3, 3), good.distortion, {}}, "camera.matrix"},
                                                    {{cv::Mat(cv::Mat::eye(2, 3, CV_64F)), good.distortion, {}}, "camera.matrix"},
                                                    {lens(cv::Mat::zeros(1, 6, CV_64F)), "camera.distortion"},
                                                    {lens(cv::Mat::zeros(2, 2, CV_64F)), "camera.distortion"},
                                                    {lens(cv::Mat::zeros(1, 5, CV_32F)), "camera.distortion"},
                                                    {lens(cv::Mat(1, 5, CV_64F, cv::Scalar(kInf))), "camera.distortion"}};
    for (const auto& c : cases) {
        EXPECT_EQ(refused([&] { undistorted({}, c.first); }), c.second);
        EXPECT_EQ(refused([&] { distortedEllipse({}, c.first); }), c.second);
    }
}

}  // namespace kestrune::test::lens
