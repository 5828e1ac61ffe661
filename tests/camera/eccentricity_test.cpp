// SPDX-License-Identifier: Apache-2.0
#include "MarkerExtractor/camera/eccentricity.h"

#include <opencv2/imgproc.hpp>

#include "kestrune/MarkerExtractor.h"
#include "support/calls.h"

namespace kestrune::test::eccentricity {

/// Ellipse whose half axes have these inverse squares.
cv::RotatedRect ellipseOf(double alongWidth, double alongHeight, float angle, cv::Point2f centre = {}) {
    return {centre, cv::Size2f(static_cast<float>(2 / std::sqrt(alongWidth)), static_cast<float>(2 / std::sqrt(alongHeight))), angle};
}

TEST(Eccentricity, FollowsItsOwnLayout) {
    // Worked by hand. The cone's eigenvalues are -1 / f^2 and those of (A B; B C), at 45 degrees A + B and A - B with
    // the whole B = wa - wb: 15 and 24, or -0.5 and 5.5, where half of it would give back the axes.
    const double t = std::sqrt(0.5), R = 1.5;
    const std::tuple<double, double, float, double, cv::Vec3d> cases[] = {
        {15, 24, 0, 1, {0.6, 0.8, 0}},
        {24, 15, 0, 1, {0.6, 0, 0.8}},
        {15, 24, 90, 1, {0.6, 0, 0.8}},
        {17.25, 21.75, 45, 1, {0.6, 0.8 * t, 0.8 * t}},
        {1, 4, 45, 1, {std::sqrt(12.0 / 13), std::sqrt(1.0 / 26), std::sqrt(1.0 / 26)}},
        {1, 4, 45, 2, {std::sqrt(1.0 / 48), std::sqrt(23.0 / 24), std::sqrt(1.0 / 48)}}};
    for (const auto& [wa, wb, angle, f, normal] : cases) {
        for (const cv::Vec3d& T : {cv::Vec3d(1, 0.5, -9), cv::Vec3d(3, -4, -20), cv::Vec3d(-8, 1, -30)}) {
            const Eccentricity e = eccentricityAhn(T, ellipseOf(wa, wb, angle, {300, -80}), f, R);
            const cv::Vec3d N = e.normal, L = N.cross(cv::Vec3d(0, 0, 1)), P = T - (L.dot(T) / L.dot(L)) * L;
            for (int i = 0; i < 3; ++i) EXPECT_NEAR(std::abs(N[i]), normal[i], 2e-6) << wa << ' ' << angle << ' ' << i;
            EXPECT_TRUE(N[2] > -2e-6 || wa == 1) << "one of the two planes always shows its front, but for very long ellipses";
            // The displacement from that normal by products of vectors. The half turn that the angle between normal and
            // position lies in is decided by rounding, hence two values, one for each sign.
            const double sine = std::abs(N[1]), away = std::abs(L.dot(T)) / cv::norm(L), around = cv::norm(N.cross(P));
            bool agrees = false;
            for (const int sign : {1, -1}) {
                const double G = std::sqrt(1 - sine * sine) * N.dot(P) + sign * sine * around, scale = f * sine / (G * G / (R * R) - sine * sine) / G;
                const double x = away * sine * scale, y = -sign * around * scale, length = std::hypot(x, y);
                agrees |= std::hypot(e.x - x, e.y - y) + std::abs(e.norm - length) <= 1e-5 * length;
            }
            EXPECT_TRUE(agrees) << wa << ' ' << angle << ' ' << T;
        }
    }
}

TEST(Eccentricity, TakesTheAngleAsAShareOfAHalfTurnInSinglePrecision) {
    int alike = 0;
    for (float angle = 100; angle < 100.001f; angle = std::nextafter(angle, 180.0f)) {
        const float next = std::nextafter(angle, 180.0f);
        const auto normalAt = [](float degrees) { return eccentricityAhn({1, 0.5, -9}, ellipseOf(15, 24, degrees), 1, 1).normal; };
        EXPECT_EQ(normalAt(angle) == normalAt(next), angle / 180 == next / 180) << angle;
        alike += angle / 180 == next / 180;
    }
    EXPECT_GT(alike, 20);
}

TEST(Eccentricity, WritesTheResultsAndTheNormal) {
    const cv::Vec3d T(20, 10, -900);
    const cv::Mat blank(120, 420, CV_8UC3, cv::Scalar(9, 9, 9));
    const std::pair<cv::RotatedRect, cv::Point> cases[] = {{ellipseOf(15, 24, 0, {149.5f, 40}), {0, 60}},
                                                           {ellipseOf(24, 15, 31, {180.9f, 10.9f}), {30, 30}},
                                                           {ellipseOf(24, kNaN, 0, {160, 50}), {10, 70}},
                                                           {ellipseOf(24, 15, 0, {-9000, 1e30f}), {9999, 9999}},
                                                           {ellipseOf(15, 24, 0, {NAN, 50}), {9999, 9999}}};
    for (auto [ellipse, place] : cases) {
        const Eccentricity e = eccentricityAhn(T, ellipse, 512, 2);
        const std::string n[] = {std::to_string(e.normal[0]), std::to_string(e.normal[1]), std::to_string(e.normal[2])};
        cv::Mat image = blank.clone(), expected = blank.clone(), none, position(T), row = cv::Mat(T * 0.5).t();
        cv::putText(expected, n[0] + "," + n[1] + "," + n[2], place, cv::FONT_HERSHEY_TRIPLEX, 0.6, {0, 0, 255, 0}, 1, 8, false);
        double x = 7, y = 7, norm = 7;
        CircleMarkerExtractor().correctedEccentricityAhn(image, position, ellipse, x, y, norm, 512, 2);
        EXPECT_TRUE(cv::norm(image, expected, cv::NORM_L1) == 0 && (cv::norm(image, blank, cv::NORM_L1) > 0) == (place.x < 420)) << n[0];
        EXPECT_EQ(std::isnan(norm), n[0] == "nan");
        if (n[0] == "nan") continue;
        EXPECT_TRUE(x == e.x && y == e.y && norm == e.norm);
        // In units of the principal distance and of the radius. Powers of two leave every bit alone.
        ellipse.size.width /= 512, ellipse.size.height /= 512;
        CircleMarkerExtractor().correctedEccentricityAhn(none, row, ellipse, x, y, norm);
        EXPECT_TRUE(512 * x == e.x && 512 * y == e.y && 512 * norm == e.norm) << n[0];
    }
}

TEST(Eccentricity, AnswersBadInput) {
    const std::array<double, 8> good = {1, 2, -9, 1, 1, 0.5, 0.4, 30};  // position, f, R, width, height, angle
    for (std::size_t which = 0; which < 8; ++which) {
        for (const double bad : {kNaN, kInf, -kInf, 0.0}) {
            std::array<double, 8> v = good;
            v[which] = bad;
            const cv::RotatedRect ellipse({}, cv::Size2f(static_cast<float>(v[5]), static_cast<float>(v[6])), static_cast<float>(v[7]));
            const Eccentricity e = eccentricityAhn({v[0], v[1], v[2]}, ellipse, v[3], v[4]);
            const bool defined = bad == 0 && which != 3 && which != 5 && which != 6;
            EXPECT_EQ(std::isnan(e.x) && std::isnan(e.y) && std::isnan(e.norm) && std::isnan(e.normal[0]), !defined) << which << ' ' << bad;
        }
    }
}

}  // namespace kestrune::test::eccentricity
