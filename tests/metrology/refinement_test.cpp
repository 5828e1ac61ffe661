// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>
#include <kestrune/MarkerMetrology.h>

#include <map>
#include <numeric>
#include <opencv2/imgproc.hpp>

#include "refinement/disc_image.h"
#include "refinement/flat_moments.h"
#include "refinement/light_prior.h"
#include "refinement/marker_window.h"
#include "refinement/noise_model.h"
#include "refinement/spot.h"
#include "support/teams.h"

namespace kestrune::refinement_test {

using geometry::SmoothEllipse;
using namespace refinement;

double phi(double u) {
    return 0.5 * std::erfc(-u / std::sqrt(2.0));
}
double point(double d, double blur) {
    return phi((d + 0.5) / blur) - phi((d - 0.5) / blur);
}

/// The pixel by plain sums of the point spread over a grid of `1 / fine` px.
double plainPixel(const SmoothEllipse& e, double blur, int x, int y, int fine = 40) {
    const cv::Matx33d m = geometry::matrixOf(e);
    const double reach = 6 * blur + 1;
    double sum = 0;
    for (double v = y - reach; v < y + reach; v += 1.0 / fine)
        for (double u = x - reach; u < x + reach; u += 1.0 / fine) {
            const cv::Vec3d p(u, v, 1);
            if (p.dot(m * p) < 0) sum += point(x - u, blur) * point(y - v, blur);
        }
    return sum / (fine * fine);
}

double valueAt(DiscImage& image, int x, int y) {
    double sum = 0;
    for (int i = image.box().x; i <= x; ++i) sum += image.row(y)[i - image.box().x].step;
    return sum;
}

TEST(DiscImage, IsThePlainSumOverTheEllipse) {
    DiscImage image;
    for (const double blur : {0.5, 0.8, 2.0})
        for (const SmoothEllipse& e : {SmoothEllipse{30.3, 31.7, 4, 0.2, 0.1}, {40.2, 39.6, 12, 5, -3}}) {
            image.reset({0, 0, 80, 80});
            ASSERT_TRUE(image.add(e, blur));
            for (int k = 0; k < 12; ++k) {
                const cv::Point2d rim = e.at(0.55 * k);
                const int x = cvRound(rim.x) + k % 3 - 1, y = cvRound(rim.y);
                EXPECT_NEAR(valueAt(image, x, y), plainPixel(e, blur, x, y), 1.5e-3) << blur << " " << k;
            }
            image.reset({10, 10, 25, 25});
            EXPECT_FALSE(image.add(e, 8)) << "its blur leaves the box";
        }
}

TEST(DiscImage, HasTheDerivativesOfItsValues) {
    const SmoothEllipse e{30.3, 31.7, 9, 3, -2};
    constexpr double kBlur = 0.9, kStep = 0.01;
    DiscImage image, moved[2];
    image.reset({0, 0, 64, 64});
    image.add(e, kBlur);
    for (int q = 0; q < 6; ++q) {
        for (const int side : {0, 1}) {
            std::array<double, 6> p = {e.x, e.y, e.s, e.e1, e.e2, kBlur};
            p[static_cast<std::size_t>(q)] += side ? kStep : -kStep;
            moved[side].reset(image.box());
            moved[side].add({p[0], p[1], p[2], p[3], p[4]}, p[5]);
        }
        for (int k = 0; k < 12; ++k) {
            const cv::Point2d rim = e.at(0.55 * k);
            const int x = cvRound(rim.x), y = cvRound(rim.y);
            const double numeric = (valueAt(moved[1], x, y) - valueAt(moved[0], x, y)) / (2 * kStep);
            EXPECT_NEAR((&image.row(y)[x].x)[q], numeric, 0.015) << q << " " << k;
        }
    }
}

TEST(FlatMoments, AreTheSumsOverThePixels) {
    cv::RNG rng(7);
    FlatMoments moments;
    const LightFrame frame{20, 30, 1.0 / 16};
    moments.reset(frame, 100);
    FlatSums plain;
    for (int y = 18; y < 44; ++y) {
        const int x = 12 + y % 5, count = 1 + y % 11;
        std::vector<float> grey(static_cast<std::size_t>(count) + 8, 1e9F);
        for (int i = 0; i < count; ++i) {
            const LightTerms p = lightTerms((x + i - frame.x) * frame.perPixel, (y - frame.y) * frame.perPixel);
            const double value = 100 * (1 + 0.02 * p[1] - 0.05 * p[4]) + rng.gaussian(3);
            grey[static_cast<std::size_t>(i)] = static_cast<float>(value);
            plain.count += 1, plain.terms += p * p.transpose();
            plain.grey += p * static_cast<double>(static_cast<float>(value));
        }
        moments.add(x, y, count, grey.data());
    }
    const FlatSums sums = moments.sums();
    EXPECT_EQ(sums.count, plain.count);
    EXPECT_LT((sums.terms - plain.terms).cwiseAbs().maxCoeff(), 1e-9);
    EXPECT_LT((sums.grey - plain.grey).cwiseAbs().maxCoeff(), 1e-2);
    EXPECT_NEAR(sums.variance(), 9, 3 * 9 * std::sqrt(2 / sums.count));
}

TEST(NoiseModel, IsALineOnlyWhereOneIsSeen) {
    struct Case {
        std::vector<ResidualSample> samples;
        double at50, at200;
    } cases[] = {{{{50, 4, 500}, {200, 16, 500}}, 4, 16},
                 {{{50, 4, 500}, {200, 4.2, 500}}, 4.1, 4.1},
                 {{{50, 4, 900}}, 4, 4},
                 {{{50, 0, 900}, {200, 0, 90}}, kRounding, kRounding},
                 {{}, 1, 1}};
    for (const Case& c : cases) {
        const NoiseModel noise = noiseOf(c.samples);
        EXPECT_NEAR(noise.variance(50), c.at50, 1e-9);
        EXPECT_NEAR(noise.variance(200), c.at200, 1e-9);
    }
}

TEST(LightPrior, IsTheSpreadBeyondWhatNoiseExplains) {
    for (const double slope : {0.0, 2e-4}) {
        cv::RNG rng(3);
        std::vector<LightEvidence> evidence;
        for (int i = 0; i < 400; ++i) {
            LightEvidence e;
            e.perPixel = 1.0 / (8 + i % 30);
            const double sigma = 1e-4 * (1 + i % 3);
            for (int k = 0; k < kLightTerms; ++k) {
                const double unit = k < 2 ? e.perPixel : e.perPixel * e.perPixel;
                e.variance[k] = sigma * sigma / (unit * unit);
                e.value[k] = ((k < 2 ? rng.gaussian(slope) : 0) + rng.gaussian(sigma)) / unit;
            }
            evidence.push_back(e);
        }
        const LightPrior prior = lightOfExposure(evidence, 2);
        EXPECT_NEAR(prior.slope, slope, 2e-5);
        EXPECT_EQ(prior.curvature, 0);
        std::reverse(evidence.begin(), evidence.end());
        EXPECT_EQ(lightOfExposure(evidence, 2).slope, prior.slope) << "to the bit, in any order";
    }
}

/// Discs on a grid, drawn at `kFine` times the resolution and blurred there, with their records a little off.
struct Rendered {
    static constexpr int kFine = 8, kTile = 48, kAcross = 10;
    cv::Mat image;
    std::vector<SmoothEllipse> truth;
    std::vector<Corner> corners;

    Rendered(double radius, double blur, double contrast, double noise, double shade = 0, double ground = 40) {
        cv::RNG rng(11);
        const int side = kTile * kAcross;
        cv::Mat fine(side * kFine, side * kFine, CV_32F, cv::Scalar(0)), small;
        for (int i = 0; i < kAcross * kAcross; ++i) {
            const SmoothEllipse e{kTile * (i % kAcross + 0.5) + rng.uniform(-0.5, 0.5), kTile * (i / kAcross + 0.5) + rng.uniform(-0.5, 0.5), radius,
                                  0.1 * radius, 0};
            truth.push_back(e);
            const auto onFine = [](double v) { return cvRound((v + 0.5) * kFine); };
            for (int y = onFine(e.y - radius - 1); y < onFine(e.y + radius + 1); ++y)
                for (int x = onFine(e.x - 1.1 * radius - 1); x < onFine(e.x + 1.1 * radius + 1); ++x) {
                    const double u = ((x + 0.5) / kFine - 0.5 - e.x) / e.majorHalfAxis(), v = ((y + 0.5) / kFine - 0.5 - e.y) / e.minorHalfAxis();
                    const double r = std::max(1e-9, std::hypot(u, v)), slope = std::hypot(u / e.majorHalfAxis(), v / e.minorHalfAxis()) / r;
                    fine.at<float>(y, x) = static_cast<float>(std::clamp(0.5 - (r - 1) / slope * kFine, 0.0, 1.0) * contrast);
                }
            Corner& c = corners.emplace_back();
            c.x = e.x + rng.gaussian(0.15), c.y = e.y + rng.gaussian(0.15);
            c.ellipse = {cv::Point2f(static_cast<float>(c.x), static_cast<float>(c.y)),
                         cv::Size2f(static_cast<float>(2 * e.majorHalfAxis() - 0.5), static_cast<float>(2 * e.minorHalfAxis())), 0};
        }
        cv::GaussianBlur(fine, fine, {}, blur * kFine, 0, cv::BORDER_REPLICATE);
        cv::resize(fine, small, {side, side}, 0, 0, cv::INTER_AREA);
        small += ground;
        for (int y = 0; y < side; ++y)
            for (int x = 0; x < side; ++x) {
                float& v = small.at<float>(y, x);
                v = v * static_cast<float>(1 + shade * (x % kTile - kTile / 2)) + static_cast<float>(rng.gaussian(noise));
            }
        small.convertTo(image, CV_8U);
    }
};

/// Root mean square of centre errors, and of them in units of their sigmas.
std::pair<double, double> centreErrors(const std::vector<MarkerEstimate>& found, const std::vector<SmoothEllipse>& truth) {
    double sum = 0, normal = 0;
    for (std::size_t i = 0; i < found.size(); ++i) {
        EXPECT_TRUE(found[i].isRefined()) << i << ": " << nameOf(found[i].status);
        const double dx = found[i].centre.x - truth[i].x, dy = found[i].centre.y - truth[i].y;
        sum += dx * dx + dy * dy;
        normal += dx * dx / found[i].covariance(0, 0) + dy * dy / found[i].covariance(1, 1);
    }
    const double count = 2.0 * static_cast<double>(found.size());
    return {std::sqrt(sum / count), std::sqrt(normal / count)};
}

/// For an upright disc the bound of the centre is sigma / contrast sqrt(2 s / (sqrt(pi) r)), s^2 = blur^2 + 1 / 12.
/// 200 coordinates tell a root mean square to 5 %.
TEST(RefineMarkers, ReachesTheBoundAndKnowsIt) {
    struct Case {
        double radius, blur, contrast, noise, shade, most;
    } cases[] = {
        {6, 0.8, 150, 2, 0, 1.13}, {12, 0.5, 150, 0.5, 0, 1.13}, {12, 0.8, -30, 4, 0, 1.13}, {16, 2, 150, 2, 0, 1.13}, {12, 0.8, 150, 1, 3e-4, 1.35}};
    for (const Case& c : cases) {
        const Rendered scene(c.radius, c.blur, c.contrast, c.noise, c.shade);
        const auto [rms, normal] = centreErrors(refineMarkers(scene.image, scene.corners), scene.truth);
        const double s = std::sqrt(c.blur * c.blur + 1.0 / 12), noise = std::sqrt(c.noise * c.noise + 1.0 / 12);
        const double bound = noise / std::abs(c.contrast) * std::sqrt(2 * s / (std::sqrt(CV_PI) * c.radius));
        EXPECT_LT(rms / bound, c.most) << c.radius;
        EXPECT_NEAR(normal, 1, 0.13) << c.radius;
    }
}

/// Over-exposed by 5, 20 and 50 % of the range, and dark levels below 0.
TEST(RefineMarkers, KnowsSizesWhereTheImageCutsLevelsOff) {
    struct Case {
        double radius, blur, ground, contrast, noise, shade, most;
    } cases[] = {{6, 0.8, 40, 228, 2, 0, 0.01},   {12, 0.8, 40, 228, 0.5, 0, 0.01}, {12, 0.8, 40, 266, 2, 0, 0.02},    {12, 0.8, 40, 342, 2, 0, 0.03},
                 {3, 1, 40, 342, 2, 0, 0.05},     {9, 0.8, 40, 228, 12, 0, 0.04},   {12, 0.8, 40, 266, 2, 1e-3, 0.02}, {9, 0.8, -1, 160, 2, 0, 0.01},
                 {9, 0.8, 270, -210, 2, 0, 0.02}, {9, 0.8, -20, 295, 2, 0, 0.01},   {9, 0.8, 0, 215, 2, 0, 0.01}};
    for (const Case& c : cases) {
        const Rendered scene(c.radius, c.blur, c.contrast, c.noise, c.shade, c.ground);
        const std::vector<MarkerEstimate> found = refineMarkers(scene.image, scene.corners);
        EXPECT_NEAR(centreErrors(found, scene.truth).second, 1, 0.2) << c.radius << " " << c.ground << " " << c.contrast;
        double sum = 0, normal = 0, residual = 0;
        for (std::size_t i = 0; i < found.size(); ++i) {
            const double off = (found[i].majorHalfAxis + found[i].minorHalfAxis) / 2 - scene.truth[i].s;
            sum += off * off / 100, normal += off * off / found[i].covariance(2, 2) / 100, residual += found[i].residual / 100;
        }
        EXPECT_LT(std::sqrt(sum), c.most) << c.radius << " " << c.ground << " " << c.contrast;
        EXPECT_NEAR(std::sqrt(normal), 1, 0.2) << c.radius << " " << c.ground << " " << c.contrast;
        EXPECT_NEAR(residual, 1, 0.06) << c.radius << " " << c.ground << " " << c.contrast;
    }
}

/// A strip of another level over a fifth of every marker: what is left is measured, and its sigmas know that it is less.
TEST(RefineMarkers, LeavesOutWhatLiesOverAMarker) {
    Rendered scene(16, 0.8, 120, 2);
    for (const SmoothEllipse& e : scene.truth) scene.image(cv::Rect(cvRound(e.x + 0.6 * e.majorHalfAxis()), cvRound(e.y - 20), 9, 40)).setTo(90);
    const std::vector<MarkerEstimate> found = refineMarkers(scene.image, scene.corners);
    double normal = 0, count = 0;
    for (std::size_t i = 0; i < found.size(); ++i) {
        if (!found[i].isRefined()) continue;
        const double dx = found[i].centre.x - scene.truth[i].x;
        normal += dx * dx / found[i].covariance(0, 0), ++count;
    }
    EXPECT_GT(count, 0.7 * static_cast<double>(found.size()));
    EXPECT_NEAR(std::sqrt(normal / count), 1, 0.35);
}

TEST(RefineMarkers, GivesTheSameInAnyOrderOnAnyNumberOfThreads) {
    const Rendered scene(10, 0.8, 100, 2, 2e-4);
    const std::vector<MarkerEstimate> one = refineMarkers(scene.image, scene.corners);
    std::vector<Corner> turned(scene.corners.rbegin(), scene.corners.rend());
    test::SharedLoops shared;
    for (const int threads : {1, 2, 3}) {
        omp_set_num_threads(threads);
        const std::vector<MarkerEstimate> two = refineMarkers(scene.image, turned);
        for (std::size_t i = 0; i < one.size(); ++i) {
            EXPECT_EQ(one[i].centre, two[one.size() - 1 - i].centre) << i;
            EXPECT_EQ(cv::norm(one[i].covariance - two[one.size() - 1 - i].covariance), 0) << i;
        }
    }
}

TEST(RefineMarkers, BeginsAtTheSpotWhereARecordHasNoOutline) {
    for (const double contrast : {150, -30}) {
        Rendered scene(12, 0.8, contrast, 2);
        const std::vector<MarkerEstimate> wanted = refineMarkers(scene.image, scene.corners);
        for (Corner& c : scene.corners) c.ellipse = {}, c.area = 400;
        const std::vector<MarkerEstimate> found = refineMarkers(scene.image, scene.corners);
        for (std::size_t i = 0; i < found.size(); ++i) EXPECT_LT(cv::norm(found[i].centre - wanted[i].centre), 2e-3) << i;
    }
    cv::Mat image(1600, 1600, CV_8U, cv::Scalar(50)), noise(200, 200, CV_8U);
    cv::ellipse(image, {724, 884}, {480, 160}, 30, 0, 360, cv::Scalar(150), cv::FILLED);
    cv::resize(image, image, noise.size(), 0, 0, cv::INTER_AREA);
    cv::GaussianBlur(image, image, {}, 1);
    cv::randn(noise, 8, 2);
    image += noise;
    Corner slanted;
    slanted.x = 91, slanted.y = 109, slanted.area = 3600;
    EXPECT_TRUE(refineMarkers(image, {slanted}).front().isRefined());
    const SmoothEllipse circle{91, 109, 34, 0, 0}, spot = ellipseOfSpot(image, circle);
    EXPECT_LT(std::hypot(spot.x - 90, spot.y - 110), 0.1);
    EXPECT_NEAR(spot.majorHalfAxis(), 60, 1);
    EXPECT_NEAR(spot.minorHalfAxis(), 20, 1);
    EXPECT_NEAR(spot.angle(), CV_PI / 6, 0.01);
    for (const SmoothEllipse& other : {SmoothEllipse{91, 109, 60, 0, 0}, {20, 20, 8, 0, 0}, {199.9, 199.9, 5, 0, 0}, {-9, 0, 5, 0, 0}})
        EXPECT_EQ(ellipseOfSpot(image, other).s, other.s) << "no spot of that size there";
}

TEST(RefineMarkers, SaysWhyOneIsLeftAsItWas) {
    const Rendered scene(10, 0.8, 100, 2);
    const auto corner = [](double x, double y, float axis) {
        Corner c;
        c.x = x, c.y = y;
        c.ellipse = {cv::Point2f(static_cast<float>(x), static_cast<float>(y)), cv::Size2f(axis, axis), 0};
        return c;
    };
    cv::Mat image = scene.image.clone();
    image(cv::Rect(196, 196, 40, 20)).setTo(120);       // half of one is covered
    cv::rectangle(image, {300, 300, 24, 24}, 255, -1);  // no disc
    Corner nowhere = corner(24, 24, 0);
    nowhere.contour.assign(6, {NAN, 1e30F});
    const std::pair<Corner, RefinementStatus> cases[] = {
        {nowhere, RefinementStatus::noOutline},
        {corner(24, 24, 0), RefinementStatus::noOutline},
        {corner(NAN, 24, 20), RefinementStatus::noOutline},
        {corner(5, 24, 20), RefinementStatus::leavesImage},
        {corner(-900, 24, 20), RefinementStatus::leavesImage},
        {corner(48, 48, 16), RefinementStatus::tooFaint},
        {corner(30, 24, 16), RefinementStatus::notConverged},
        {corner(312, 312, 26), RefinementStatus::notADisc},
    };
    for (const auto& [c, status] : cases) {
        const MarkerEstimate estimate = refineMarkers(image, {c}).front();
        EXPECT_STREQ(nameOf(estimate.status), nameOf(status));
        EXPECT_FALSE(estimate.isRefined());
        EXPECT_TRUE(!std::isfinite(c.x) || estimate.centre.x == c.x);
        EXPECT_GT(estimate.covariance(0, 0), 0.05);
    }
}

TEST(RefineMarkers, StandsRecordsOfAnyNumbers) {
    const RowInterval row = rowOf({0, 0, 1e15, 0.9e15, 0}, 7);
    EXPECT_LT(row.from, -1e6);
    EXPECT_GT(row.to, 1e6);
    MarkerEstimate lost;
    lost.covariance = decltype(lost.covariance)::all(NAN);
    EXPECT_TRUE(std::isnan(axisSigmas(lost).major)) << "not known, which is not 0";
}

TEST(RefineMarkers, RefusesWhatItCannotReadByName) {
    const Rendered scene(6, 0.8, 100, 2);
    RefinementOptions degree, size, camera;
    degree.mostLightDegree = 3, size.recordSize = {-1, 5};
    camera.camera = Camera{cv::Mat(2, 2, CV_64F), {}, {}};
    const std::tuple<cv::Mat, RefinementOptions, const char*> cases[] = {{cv::Mat(), {}, "image"},
                                                                         {cv::Mat(9, 9, CV_32F), {}, "image"},
                                                                         {cv::Mat(9, 9, CV_8UC2), {}, "image"},
                                                                         {scene.image, degree, "mostLightDegree"},
                                                                         {scene.image, size, "recordSize"},
                                                                         {scene.image, camera, "camera"}};
    for (const auto& [image, options, name] : cases) {
        try {
            refineMarkers(image, {}, options);
            ADD_FAILURE() << name;
        } catch (const cv::Exception& e) {
            EXPECT_EQ(e.code, cv::Error::StsBadArg);
            EXPECT_NE(e.err.find(name), std::string::npos) << e.err;
        }
    }
    EXPECT_TRUE(refineMarkers(scene.image, {}).empty());
}

}  // namespace kestrune::refinement_test
