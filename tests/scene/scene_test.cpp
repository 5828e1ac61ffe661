// SPDX-License-Identifier: Apache-2.0
#include "kestrune_scene/scene.h"

#include <gtest/gtest.h>

#include <complex>
#include <opencv2/calib3d.hpp>
#include <opencv2/imgproc.hpp>

namespace kestrune::scene::scene_test {

using Polygon = std::vector<cv::Point2d>;

const PinholeCamera kPlain{{1500, 0, 200.25, 0, 1500, 149.5, 0, 0, 1}, {}, cv::Matx33d::eye(), {}, {400, 300}};

// OpenCV's own lens and its inverse lead rim points back to the conic, and the ellipse's parameters trace that conic.
TEST(Projection, ConicHoldsRimPointsAndEllipse) {
    const Rig rig = makeVergedRig({2448, 2048});
    for (const Disc& disc : makeScatteredDiscs(rig, 40, 15, 60, 45, 200, 3)) {
        const cv::Vec3d u = cv::normalize(disc.normal.cross(cv::Vec3d(0, 1, 0))), v = disc.normal.cross(u);
        for (const PinholeCamera& camera : {rig.left, rig.right}) {
            const EllipseTruth e = projectDisc(camera, disc);
            std::vector<cv::Point3d> world{cv::Point3d(disc.centre)};
            Polygon seen, flat, rim;
            for (int i = 0; i < 6; ++i) {
                world.emplace_back(disc.centre + (u * cos(i) + v * sin(i)) * disc.radius);
                const auto turned = std::polar(1.0, e.angle) * std::complex(e.majorHalfAxis * cos(i), e.minorHalfAxis * sin(i));
                rim.push_back(e.centre + cv::Point2d(turned.real(), turned.imag()));
            }
            cv::Vec3d rotation;
            cv::Rodrigues(camera.rotation, rotation);
            cv::projectPoints(world, rotation, camera.translation, camera.intrinsic, camera.distortion, seen);
            EXPECT_LT(cv::norm(seen[0] - projectPoint(camera, disc.centre)), 1e-8);
            seen.push_back(e.distortedCentre);
            cv::undistortPoints(seen, flat, camera.intrinsic, camera.distortion, cv::noArray(), camera.intrinsic);
            EXPECT_LT(cv::norm(flat.front() - e.projectedCentre) + cv::norm(flat.back() - e.centre), 1e-6);
            const auto valueAt = [&e](cv::Point2d p) { return cv::Vec6d(e.conic.data()).dot({p.x * p.x, p.x * p.y, p.y * p.y, p.x, p.y, 1}); };
            rim.insert(rim.end(), flat.begin() + 1, flat.end() - 1);
            for (const cv::Point2d& p : rim) EXPECT_NEAR(valueAt(p), 0, 1e-6);
            EXPECT_TRUE(std::abs(valueAt(e.centre) + 1) < 1e-6 && e.majorHalfAxis > e.minorHalfAxis && e.angle >= 0 && e.angle < CV_PI);
        }
    }
    // Behind the camera, from its back, beyond the image's edge, edge on.
    const cv::Vec3d hidden[][2] = {{{0, 0, -500}, {0, 0, 1}}, {{0, 0, 500}, {0, 0, 1}}, {{60, 0, 500}, {0, 0, -1}}, {{0, 0, 500}, {1, 0, 0}}};
    for (const auto& [at, normal] : hidden) EXPECT_FALSE(projectDisc(kPlain, {at, normal, 6, 0}).visible) << at;
    // This lens folds at 1 / sqrt(1.2) = 0.913 from the axis, and what is beyond comes back to where it shows 0.8.
    PinholeCamera folding = kPlain;
    folding.intrinsic(0, 0) = folding.intrinsic(1, 1) = 250, folding.distortion = {-0.4, 0, 0, 0, 0};
    for (const auto& [x, visible] : {std::pair(440.0, true), {475.0, false}})
        EXPECT_EQ(projectDisc(folding, {{x, 0, 500}, {0, 0, -1}, 6, 0}).visible, visible) << x;
}

TEST(Coverage, EqualsTheClippedAreaOfEveryPixel) {
    Polygon circle;
    cv::ellipse2Poly(cv::Point2d(5.3, 4.6), {4.9, 4.9}, 0, 0, 358, 2, circle);
    // Some turn left, some right; one stands upright, the others leave the image on the right, the left and all sides.
    const Polygon outlines[] = {circle,
                                {{1.25, 2.75}, {1.25, 6.125}, {8.5, 6.125}, {8.5, 2.75}},
                                {{4.2, 2.3}, {13.7, 1.1}, {12.7, 8.9}},
                                {{-8.2, -3.1}, {-4.4, 16.3}, {6.7, 4.7}},
                                {{-7.3, 3.1}, {4.2, -6.4}, {19.1, 4.7}, {5.6, 15.2}}};
    for (const Polygon& outline : outlines) {
        cv::Mat_<float> sum(9, 11, 1.0F);
        addPolygonCoverage(sum, outline, 2);
        const std::vector<cv::Point2f> polygon(outline.begin(), outline.end());
        for (int i = 0, x = 0, y = 0; i < 99; ++i, x = i % 11, y = i / 11) {
            std::vector<cv::Point2f> pixel(4), common;
            cv::RotatedRect(cv::Point2f(x, y), {1, 1}, 0).points(pixel.data());
            EXPECT_NEAR(sum(y, x), 1 + 2 * cv::intersectConvexConvex(pixel, polygon, common), 2e-5) << polygon[0] << " at " << x << ", " << y;
        }
    }
}

TEST(Render, KeepsMomentsOrderAndNoise) {
    const Disc disc{{-10.07, 3.03, 500}, {0, 0, -1}, 7, 200};  // a circle of 21 px
    for (const double blur : {0.0, 0.8, 1.5}) {
        const cv::Moments m = cv::moments(render({kPlain, kPlain}, {disc}, {}, {40, blur, 0, 1}).image[0] - 40);
        EXPECT_LT(std::hypot(m.m10 / m.m00 - 200.25 + 30.21, m.m01 / m.m00 - 149.5 - 9.09), 1e-3);
        EXPECT_NEAR(m.m00 / (160 * CV_PI * 441), 1, 2e-4);
    }
    const std::vector<Patch> patches{{0, {{150, 139}, {350, 139}, {350, 179}, {150, 179}}, 90}};  // under the disc
    const auto renderWith = [&](int seed) { return render({kPlain, kPlain}, {disc}, patches, {40, 0.8, 2, static_cast<std::uint64_t>(seed)}).image; };
    const auto first = renderWith(1), again = renderWith(1), other = renderWith(2);
    for (std::size_t eye = 0; eye < 2; ++eye) {
        EXPECT_EQ(cv::norm(first[eye], again[eye], cv::NORM_INF), 0);
        // Independent exposures differ by sqrt(2) of the noise and of the rounding's variance of 1/12.
        const cv::Rect plain(0, 0, 400, 120);
        EXPECT_NEAR(cv::norm(first[eye](plain), (eye ? first : other)[0](plain)) / std::sqrt(48000), 2.858, 0.05);
        EXPECT_NEAR(cv::mean(first[eye]({210, 150, 100, 20}))[0], eye ? 40 : 90, 0.2);
        EXPECT_NEAR(cv::mean(first[eye]({160, 150, 20, 20}))[0], 200, 0.5);
    }
}

TEST(ReadyScenes, ShowDiscsInTheirPlacesApartAndClear) {
    const Rig rig = makeVergedRig({640, 512});
    EXPECT_LT(makeScatteredDiscs(rig, 500, 40, 40, 0, 200, 5).size(), 100U);  // no room for more
    for (const auto& discs : {makeScatteredDiscs(rig, 60, 6, 12, 30, 200, 5), makeCurvedObject(rig, 60, 3, 5, 200, 5)}) {
        EXPECT_EQ(discs.size(), 60U);
        const Exposure clutter = render(rig, {}, makeClutter(rig, discs, 60, 9), {40, 0.8, 0, 1}), clean = render(rig, discs, {}, {40, 0, 0, 1});
        for (std::size_t eye = 0; eye < 2; ++eye) {
            cv::Mat_<std::uint8_t> seen(rig.left.size, 0), once(rig.left.size, 0);
            for (const MarkerTruth& marker : clean.markers) {
                const EllipseTruth& e = marker.eye[eye];
                cv::circle(once = 0, e.distortedCentre, cvRound(1.4 * e.majorHalfAxis), 1, cv::FILLED);
                const cv::Moments m = cv::moments((clean.image[eye] - 40).mul(once));
                EXPECT_TRUE(e.visible && cv::norm(cv::Point2d(m.m10 / m.m00, m.m01 / m.m00) - e.distortedCentre) < 5e-3);
                seen += once;
            }
            EXPECT_EQ(cv::norm(seen, cv::NORM_INF), 1);
            EXPECT_EQ(cv::countNonZero((clutter.image[eye] != 40) & (seen == 1)), 0);
            EXPECT_GT(cv::countNonZero(clutter.image[eye] != 40), 2000);
        }
    }
}

/// One seed is one scene on every compiler: the draws of one statement must not be left to its order.
TEST(ReadyScenes, AreTheSameOnEveryCompiler) {
    const Rig rig = makeVergedRig({640, 512});
    const auto discs = makeScatteredDiscs(rig, 12, 6, 12, 30, 200, 5);
    const Exposure seen = render(rig, discs, makeClutter(rig, discs, 20, 9), {40, 0, 0, 1});
    EXPECT_NEAR(cv::norm(seen.markers[3].eye[0].distortedCentre), 515.060338, 1e-5);
    EXPECT_NEAR(cv::sum(seen.image[0])[0], 13810146, 20);  // a few pixels may round the other way
}

TEST(Score, PairsNearestFirst) {
    std::vector<MarkerTruth> truth(4);  // at x = 0, 10, 20 and, out of view, 30
    for (std::size_t i = 0; i < 4; ++i) truth[i].eye[1] = {i < 3, {10.0 * i, 0}, {10.0 * i, 100}, {}, 0, 0, 0, {}};
    using Lists = std::vector<std::vector<int>>;
    // Detections, largest distance; marker, detection, marker, ..., then missed, then false ones; RMS, largest.
    const std::tuple<Polygon, double, Lists, double, double> table[] = {{{{6, 0}, {1, 0}}, 8, {{0, 1, 1, 0}, {2}, {}}, std::sqrt(8.5), 4},
                                                                        {{{6, 0}, {13, 0}}, 6, {{0, 0, 1, 1}, {2}, {}}, std::sqrt(22.5), 6},
                                                                        {{{5, 0}, {15, 0}, {NAN, 0}}, 5, {{0, 0, 1, 1}, {2}, {2}}, 5, 5},
                                                                        {{{30, 0}, {20, 3}, {20, 4}}, 3, {{2, 1}, {0, 1}, {0, 2}}, 3, 3},
                                                                        {{}, 9, {{}, {0, 1, 2}, {}}, 0, 0}};
    for (const auto& [given, maxDistance, expected, rms, largest] : table) {
        for (const int offset : {0, 100}) {
            Polygon detections = given;
            for (cv::Point2d& d : detections) d.y += offset;
            const DetectionScore score = scoreDetections(truth, 1, detections, offset == 0, maxDistance);
            Lists actual{{}, score.missed, score.falseOnes};
            for (const DetectionMatch& m : score.matches) actual[0].insert(actual[0].end(), {m.marker, m.detection});
            EXPECT_EQ(actual, expected);
            EXPECT_NEAR(std::hypot(score.centreRms - rms, score.centreMax - largest), 0, 1e-12);
        }
    }
}

}  // namespace kestrune::scene::scene_test
