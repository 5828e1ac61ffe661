// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <stdexcept>

#include "MarkerExtractor/camera/rectify.h"
#include "support/rigs.h"

namespace kestrune {
namespace {

using Poses = std::vector<Pose_<double>>;
using Cameras = std::vector<Camera_<double, 2, 2>>;

const Pose_<double> kAtOrigin{{1, 0, 0, 0, 1, 0, 0, 0, 1, 0, 0, 0}};
const Camera_<double, 2, 2> kCamera{{800, 810, 320, 240, 0, 0, 0, 0, 0, 7}};

Pose_<double> placedAt(double x, double y, double z) {
    Pose_<double> pose = kAtOrigin;
    pose.values[9] = x;
    pose.values[10] = y;
    pose.values[11] = z;
    return pose;
}

TEST(CalibrationIntake, PlacesTheBaselineWhereTheRigHasIt) {
    const struct {
        const char* what;
        double x, y;
        int row;
        double baseline;
    } cases[] = {{"right camera to the right", 100, 0, 0, -100},
                 {"right camera to the left", -100, 0, 0, 100},
                 {"below", 0, 50, 1, -50},
                 {"above", 0, -50, 1, 50}};
    for (const auto& c : cases) {
        CircleMarkerExtractor e;
        e.transform_kestruneData2cvMat({kAtOrigin, placedAt(c.x, c.y, 0), kAtOrigin}, {kCamera, kCamera}, 640, 480, 0);
        EXPECT_LT(cv::norm(e.rotation, cv::Mat::eye(3, 3, CV_64F)), 1e-12) << c.what;
        EXPECT_LT(cv::norm(e.translation, cv::Mat(cv::Vec3d(-c.x, -c.y, 0))), 1e-12) << c.what;
        cv::Mat expected = cv::Mat::eye(3, 4, CV_64F);
        expected.at<double>(c.row, 3) = c.baseline;
        EXPECT_LT(cv::norm(e.rightTriangulation, expected), 1e-9) << c.what;
        EXPECT_EQ(e.imageWidth, 640);
        EXPECT_EQ(e.scratchLabels.size(), 640u * 480u);
        EXPECT_EQ(e.leftMapX.type(), CV_32FC1);
    }
}

TEST(CalibrationIntake, AgreesWithProjectionsOfSpace) {
    const cv::Matx33d turned = [] {
        cv::Matx33d r;
        cv::Rodrigues(cv::Vec3d(0.4, -0.3, 1.1), r);
        return r;
    }();
    for (scene::Rig rig : {scene::makeVergedRig({1280, 1024}), test::verticalRig()}) {
        CircleMarkerExtractor e;
        // The same rig seen from a world of another orientation: nothing but the poses may change.
        scene::Rig moved = rig;
        for (scene::PinholeCamera* camera : {&moved.left, &moved.right}) {
            camera->translation += camera->rotation * cv::Vec3d(30, -20, 70);
            camera->rotation = camera->rotation * turned;
        }
        test::calibrate(e, moved);
        EXPECT_LT(cv::norm(cv::Mat(rig.right.rotation), e.rotation), 1e-9);
        EXPECT_LT(cv::norm(cv::Mat(rig.right.translation), e.translation), 1e-6);

        rig.left.distortion = rig.right.distortion = {};
        const scene::Rig rectified = test::rectifiedRig(e, rig);
        for (const cv::Vec3d& x : {cv::Vec3d(10, 20, 900), cv::Vec3d(-90, 60, 1000), cv::Vec3d(80, -70, 820)}) {
            const cv::Point2d left = scene::projectPoint(rig.left, x), right = scene::projectPoint(rig.right, x);
            const cv::Vec3d l(left.x, left.y, 1), r(right.x, right.y, 1);
            const cv::Matx33d F(e.fundamental);
            EXPECT_NEAR(r.dot(F * l) / cv::norm(F * l), 0, 1e-6);
            const cv::Matx34d P(cv::Mat(e.rightIntrinsic * e.leftTriangulation).ptr<double>());
            const cv::Vec3d again = P * cv::Vec4d(x[0], x[1], x[2], 1);
            EXPECT_LT(std::hypot(again[0] / again[2] - right.x, again[1] / again[2] - right.y), 1e-6);
            for (const bool isLeft : {true, false}) {
                const cv::Vec3d mapped = cv::Matx33d(isLeft ? e.leftHomography : e.rightHomography) * (isLeft ? l : r);
                const cv::Point2d expected = scene::projectPoint(isLeft ? rectified.left : rectified.right, x);
                EXPECT_LT(std::hypot(mapped[0] / mapped[2] - expected.x, mapped[1] / mapped[2] - expected.y), 1e-6);
            }
        }
    }
}

TEST(CalibrationIntake, LeavesTheCalibrationOfACopyAlone) {
    CircleMarkerExtractor e;
    e.transform_kestruneData2cvMat({kAtOrigin, placedAt(100, 0, 0)}, {kCamera, kCamera}, 640, 480, 0);
    const CircleMarkerExtractor copy = e;
    e.transform_kestruneData2cvMat({kAtOrigin, placedAt(70, 5, 0)}, {kCamera, kCamera}, 640, 480, 0);
    EXPECT_EQ(copy.translation.at<double>(0), -100);
    EXPECT_EQ(copy.leftTriangulation.at<double>(0, 3), -100);
    EXPECT_NE(cv::norm(copy.rightProjection, e.rightProjection), 0);
}

TEST(CalcFoundationMat, HasTheSignOfTheCrossProductWithMinusT) {
    CircleMarkerExtractor e;
    cv::Mat I = cv::Mat::eye(3, 3, CV_64F), T = (cv::Mat_<double>(3, 1) << 1, 2, 3), F;
    e.CalcFoundationMat(I, T, I, I, F);
    const cv::Mat expected = (cv::Mat_<double>(3, 3) << 0, 3, -2, -3, 0, 1, 2, -1, 0);
    EXPECT_EQ(cv::norm(F, expected), 0);
}

TEST(CalibrationIntake, RefusesWhatItCannotUse) {
    CircleMarkerExtractor e;
    EXPECT_THROW(e.transform_kestruneData2cvMat({kAtOrigin, kAtOrigin}, {kCamera}, 640, 480, 0), std::out_of_range);
    EXPECT_TRUE(e.leftIntrinsic.empty());
    try {
        e.transform_kestruneData2cvMat({kAtOrigin}, {kCamera, kCamera}, 640, 480, 0);
        ADD_FAILURE();
    } catch (const std::out_of_range& error) {
        EXPECT_STREQ(error.what(), "invalid vector subscript");
    }
    EXPECT_EQ(e.leftIntrinsic.at<double>(1, 1), 810);
    EXPECT_TRUE(e.rotation.empty());
    // Two cameras in one place: all that needs no baseline is there, and OpenCV refuses the rest.
    EXPECT_THROW(e.transform_kestruneData2cvMat({kAtOrigin, kAtOrigin}, {kCamera, kCamera}, 640, 480, 0), cv::Exception);
    EXPECT_EQ(cv::countNonZero(e.fundamental), 0);
    EXPECT_EQ(e.fundamental.size(), cv::Size(3, 3));

    Camera_<double, 2, 2> noNumber = kCamera;
    noNumber.values[8] = std::nan("");
    const struct {
        const char* name;
        Poses poses;
        Cameras cameras;
        int width, height;
    } cases[] = {{"cameras[1]", {kAtOrigin, placedAt(1, 0, 0)}, {kCamera, noNumber}, 640, 480},
                 {"poses[1]", {kAtOrigin, placedAt(INFINITY, 0, 0)}, {kCamera, kCamera}, 640, 480},
                 {"width", {kAtOrigin, placedAt(1, 0, 0)}, {kCamera, kCamera}, 0, 480},
                 {"height", {kAtOrigin, placedAt(1, 0, 0)}, {kCamera, kCamera}, 640, -1}};
    for (const auto& c : cases) {
        CircleMarkerExtractor fresh;
        try {
            fresh.transform_kestruneData2cvMat(c.poses, c.cameras, c.width, c.height, 0);
            ADD_FAILURE() << c.name;
        } catch (const cv::Exception& error) {
            EXPECT_NE(error.err.find(c.name), std::string::npos) << error.what();
        }
        EXPECT_TRUE(fresh.leftIntrinsic.empty()) << c.name;
    }
    cv::Mat I = cv::Mat::eye(3, 3, CV_64F), t = cv::Mat::ones(3, 1, CV_64F), single = cv::Mat::eye(3, 3, CV_32F), F;
    EXPECT_THROW(e.CalcFoundationMat(I, t, single, I, F), cv::Exception);
    EXPECT_THROW(e.CalcFoundationMat(I, F, I, I, F), cv::Exception);
    EXPECT_THROW(e.SetTriangulationIntrinsicMatrix(I, cv::Mat()), cv::Exception);
    EXPECT_THROW(e.SetTriangulationIntrinsicMatrix(single, I), cv::Exception);
    EXPECT_EQ(e.triangulationA.size(), 0) << "untouched";
}

TEST(SetStereorectifyParam, NamesTheMatrixThatIsWrong) {
    const cv::Mat P = cv::Mat::ones(3, 4, CV_64F), R = cv::Mat::eye(3, 3, CV_64F), odd = cv::Mat::ones(2, 2, CV_64F);
    const struct {
        std::vector<cv::Mat> matrices;
        const char* text;
        bool left, right;
    } cases[] = {{{P, P, R}, "Warning: input matrixes num error!", false, false},
                 {{odd, P, R, R}, "Warning: the first matrix size error!", false, false},
                 {{P, R, R, R}, "Warning: the second matrix size error!", true, false},
                 {{P, P, P, R}, "Warning: the third matrix size error!", true, true},
                 {{P, P, R, odd, odd}, "", true, true}};
    for (const auto& c : cases) {
        CircleMarkerExtractor e;
        testing::internal::CaptureStdout();
        EXPECT_EQ(e.SetStereorectifyParam(c.matrices), *c.text == '\0');
        const std::string line = testing::internal::GetCapturedStdout();
        EXPECT_EQ(line.find(*c.text == '\0' ? "WARN" : std::string("   ") + c.text + "\n") != std::string::npos, *c.text != '\0') << line;
        EXPECT_EQ(line.find(" WARN  MarkerExtractor.h:") != std::string::npos, *c.text != '\0') << line;
        EXPECT_EQ(!e.leftProjection.empty() && !e.leftIntrinsic.empty(), c.left) << c.text;
        EXPECT_EQ(!e.rightProjection.empty() && !e.rightIntrinsic.empty(), c.right) << c.text;
        EXPECT_EQ(e.rightRectification.size() == odd.size(), *c.text == '\0');
    }
}

TEST(SetTriangulationIntrinsicMatrix, MapsConicsOfTheNormalisedPlaneToPixels) {
    CircleMarkerExtractor e;
    const cv::Mat K = (cv::Mat_<double>(3, 4) << 900, 5, 310, 0, 0, 850, 260, 0, 0, 0, 1, 0);
    e.SetTriangulationIntrinsicMatrix(K, 2 * K);
    Eigen::VectorXd conic(6);
    conic << 2, -0.5, 3, 0.1, -0.2, -1;
    const Eigen::VectorXd inPixels = e.triangulationC * conic;
    for (const auto& [x, y] : {std::pair{300.0, 200.0}, std::pair{12.0, 700.0}}) {
        const double u = (x - 310) / 900, v = (y - 260) / 850;
        const auto value = [](const Eigen::VectorXd& q, double s, double t) {
            return q[0] * s * s + q[1] * s * t + q[2] * t * t + q[3] * s + q[4] * t + q[5];
        };
        EXPECT_NEAR(value(inPixels, x, y), value(conic, u, v), 1e-9);
    }
    EXPECT_EQ(e.triangulationA(0, 1), 0) << "skew is dropped";
    EXPECT_EQ(e.triangulationB(0, 2), 620);
    const Eigen::MatrixXd before = e.triangulationA;
    e.SetTriangulationIntrinsicMatrix(2 * K, K);
    EXPECT_EQ(e.triangulationA, before) << "the first call decides";
}

TEST(ConicToEllipse, ReadsEitherSignAndLetsTheRestThrough) {
    const auto conicOf = [](double a, double b, double angle, double x, double y) {
        const double c = std::cos(angle), s = std::sin(angle);
        const double A = c * c / a / a + s * s / b / b, B = 2 * s * c * (1 / a / a - 1 / b / b), C = s * s / a / a + c * c / b / b;
        return std::array<double, 6>{A, B, C, -2 * A * x - B * y, -B * x - 2 * C * y, A * x * x + B * x * y + C * y * y - 1};
    };
    for (const double degrees : {0.0, 25.0, 90.0, 140.0}) {
        for (const double sign : {1.0, -7.0}) {
            auto q = conicOf(20, 12, degrees * CV_PI / 180, 400, 300);
            for (double& value : q) value *= sign;
            const EllipseParams e = conicToEllipse(q[0], q[1], q[2], q[3], q[4], q[5]);
            EXPECT_NEAR(e.centerX, 400, 1e-3);
            EXPECT_NEAR(e.centerY, 300, 1e-3);
            // The width lies along the angle; which axis that is, is the conic's business.
            const bool widthIsMajor = e.width > e.height;
            EXPECT_NEAR(std::max(e.width, e.height), 40, 1e-3);
            EXPECT_NEAR(std::min(e.width, e.height), 24, 1e-3);
            const double major = e.angle + (widthIsMajor ? 0 : 90) - degrees;
            EXPECT_NEAR(std::abs(std::remainder(major, 180.0)), 0, 1e-3) << degrees << " " << sign;
        }
    }
    const struct {
        std::array<double, 6> q;
        float x, width;
    } cases[] = {{{0, 0, 0, 0, 0, 0}, 0, 0}, {{1, 0, 0, 0, -1, 0}, 0, 0}, {{1, 0, -1, -2, 0, 0}, 1, 2}, {{NAN, 0, 1, 0, 0, -1}, 0, NAN}};
    for (const auto& c : cases) {
        const EllipseParams e = conicToEllipse(c.q[0], c.q[1], c.q[2], c.q[3], c.q[4], c.q[5]);
        EXPECT_EQ(e.centerX, c.x) << c.q[2];
        EXPECT_TRUE(std::isnan(c.width) ? std::isnan(e.width) : std::abs(e.width - c.width) < 1e-6f) << c.q[2];
    }
}

TEST(StereoRectifyCorners, CarriesConicsAsTheRectifiedCameraSeesThem) {
    scene::Rig rig = scene::makeVergedRig({1280, 1024});
    CircleMarkerExtractor e;
    test::calibrate(e, rig);
    std::vector<Corner> left, right, target;
    std::vector<scene::Disc> seen;
    test::exactCorners(rig, scene::makeCurvedObject(rig, 12, 4, 7, 200, 5), left, right, seen);
    ASSERT_GE(left.size(), 8u);
    left[1].conicValid = false;
    for (Corner& corner : left) corner.contour = {cv::Point2f(static_cast<float>(corner.x), static_cast<float>(corner.y))};
    e.StereoRectifyCorners(left, target, e.leftIntrinsic, cv::Mat(), e.leftRectification, e.leftProjection, e.leftHomography);
    std::vector<Corner> inPlace = left;
    e.StereoRectifyCorners(inPlace, inPlace, e.leftIntrinsic, cv::Mat(), e.leftRectification, e.leftProjection, e.leftHomography);
    const scene::Rig rectified = test::rectifiedRig(e, rig);
    ASSERT_EQ(target.size(), left.size());
    for (std::size_t k = 0; k < left.size(); ++k) {
        const scene::EllipseTruth truth = scene::projectDisc(rectified.left, seen[k]);
        if (k != 1) {
            EXPECT_LT(std::hypot(target[k].x - truth.centre.x, target[k].y - truth.centre.y), 1e-3);
            // The axes come from the conic at the rounded centre.
            EXPECT_NEAR(std::max(target[k].ellipse.size.width, target[k].ellipse.size.height), 2 * truth.majorHalfAxis, 2e-2);
            EXPECT_EQ(target[k].x, static_cast<float>(target[k].x)) << "single precision";
        } else {
            EXPECT_EQ(target[k].ellipse.size.width, 0) << "stays as it was";
        }
        const cv::Vec3d mapped = cv::Matx33d(e.leftHomography) * cv::Vec3d(left[k].x, left[k].y, 1);
        EXPECT_LT(std::hypot(target[k].contour[0].x - mapped[0] / mapped[2], target[k].contour[0].y - mapped[1] / mapped[2]), 1e-3);
        EXPECT_EQ(target[k].conic, left[k].conic) << "that of the unrectified image";
        EXPECT_EQ(inPlace[k].x, target[k].x);
        EXPECT_EQ(inPlace[k].contour, target[k].contour);
    }
    // A singular homography maps every conic to nothing; a missing one is refused with nothing written.
    e.StereoRectifyCorners(left, target, e.leftIntrinsic, cv::Mat(), e.leftRectification, e.leftProjection, cv::Mat::zeros(3, 3, CV_64F));
    EXPECT_EQ(target[0].x, 0);
    EXPECT_EQ(target[0].ellipse.size.width, 0);
    target.clear();
    EXPECT_THROW(e.StereoRectifyCorners(left, target, e.leftIntrinsic, cv::Mat(), e.leftRectification, e.leftProjection, cv::Mat()), cv::Exception);
    EXPECT_TRUE(target.empty());
}

}  // namespace
}  // namespace kestrune
