// SPDX-License-Identifier: Apache-2.0
#include "MarkerExtractor/camera/rectify.h"
#include "support/calls.h"
#include "support/rigs.h"

namespace kestrune::test::calibration {

using Pose = Pose_<double>;
using Camera = Camera_<double, 2, 2>;

const auto placedAt = [](double x, double y) { return Pose{{1, 0, 0, 0, 1, 0, 0, 0, 1, x, y, 0}}; };
const Pose kAtOrigin = placedAt(0, 0);
const Camera kCamera{{800, 810, 320, 240, 0, 0, 0, 0, 0, 7}};

void takeIn(CircleMarkerExtractor& e, const std::vector<Pose>& poses, const std::vector<Camera>& cameras, int width = 640, int height = 480) {
    e.transform_kestruneData2cvMat(poses, cameras, width, height, 0);
}

/// Of a homogeneous point from one on the image.
const auto distance = [](const cv::Vec3d& h, const cv::Point2d& p) { return std::hypot(h[0] / h[2] - p.x, h[1] / h[2] - p.y); };

TEST(CalibrationIntake, AgreesWithProjectionsOfSpaceAndLeavesThatOfACopyAlone) {
    cv::Matx33d turn;
    cv::Rodrigues(cv::Vec3d(0.4, -0.3, 1.1), turn);
    const cv::Vec3d shift(30, -20, 70);
    CircleMarkerExtractor extractor;
    std::vector<std::pair<scene::Rig, CircleMarkerExtractor>> copies;
    for (const cv::Matx33d& roll : {cv::Matx33d::eye(), cv::Matx33d(0, -1, 0, 1, 0, 0, 0, 0, 1)}) {  // side by side, one above the other
        scene::Rig rig = scene::makeVergedRig({1280, 1024});
        for (scene::PinholeCamera* camera : {&rig.left, &rig.right}) {  // seen from a world of another orientation
            camera->translation = roll * (camera->translation + camera->rotation * shift);
            camera->rotation = roll * camera->rotation * turn;
        }
        for (int run = 0; run < 2; ++run, std::swap(rig.left, rig.right)) {
            takeIn(extractor, {poseOf(rig.left), poseOf(rig.right), kAtOrigin}, {cameraOf(rig.left), cameraOf(rig.right)}, 1280, 1024);
            copies.emplace_back(rig, extractor);
        }
    }
    for (auto& [rig, e] : copies) {
        EXPECT_TRUE(e.imageWidth == 1280 && e.scratchLabels.size() == 1280u * 1024u && e.leftMapX.type() == CV_32FC1);
        EXPECT_EQ(cv::norm(e.leftTriangulation.colRange(0, 3), e.rotation) + cv::norm(e.leftTriangulation.col(3), e.translation), 0);
        rig.left.distortion = rig.right.distortion = {};
        const scene::Rig rectified = rectifiedRig(e, rig);
        cv::Mat baseline = cv::Mat::eye(3, 4, CV_64F);
        cv::Mat(rectified.right.translation - rectified.left.translation).copyTo(baseline.col(3));
        EXPECT_LT(cv::norm(e.rightTriangulation, baseline), 1e-9);
        const cv::Matx33d F(e.fundamental);
        const cv::Matx34d P(cv::Mat(e.rightIntrinsic * e.leftTriangulation).ptr<double>());
        for (const cv::Vec3d& place : {cv::Vec3d(10, 20, 900), cv::Vec3d(-90, 60, 1000), cv::Vec3d(80, -70, 820)}) {
            const cv::Vec3d x = turn.t() * (place - shift), inLeft = rig.left.rotation * x + rig.left.translation;
            const cv::Point2d left = scene::projectPoint(rig.left, x), right = scene::projectPoint(rig.right, x);
            const cv::Vec3d l(left.x, left.y, 1), r(right.x, right.y, 1);
            EXPECT_NEAR(r.dot(F * l) / cv::norm(F * l), 0, 1e-6);
            EXPECT_LT(distance(P * cv::Vec4d(inLeft[0], inLeft[1], inLeft[2], 1), right), 1e-6);
            EXPECT_LT(distance(cv::Matx33d(e.leftHomography) * l, scene::projectPoint(rectified.left, x)), 1e-6);
            EXPECT_LT(distance(cv::Matx33d(e.rightHomography) * r, scene::projectPoint(rectified.right, x)), 1e-6);
        }
    }
}

TEST(CalibrationIntake, RefusesWhatItCannotUse) {
    const Pose right = placedAt(1, 0), nowhere = placedAt(0, INFINITY);
    Camera noNumber = kCamera;
    noNumber.values[8] = kNaN;
    // Poses, cameras, size; what is refused, and how much is there by then: the cameras, the turn between them. Two
    // cameras in one place have all that needs no baseline, and OpenCV refuses the rest.
    const std::tuple<std::vector<Pose>, std::vector<Camera>, cv::Size, std::string, bool, bool> cases[] = {
        {{kAtOrigin, right}, {kCamera}, {640, 480}, "invalid vector subscript", false, false},
        {{kAtOrigin}, {kCamera, kCamera}, {640, 480}, "invalid vector subscript", true, false},
        {{kAtOrigin, kAtOrigin}, {kCamera, kCamera}, {640, 480}, "OpenCV", true, true},
        {{kAtOrigin, right}, {kCamera, noNumber}, {640, 480}, "cameras[1]", false, false},
        {{kAtOrigin}, {kCamera, noNumber}, {640, 480}, "cameras[1]", false, false},
        {{kAtOrigin, nowhere}, {kCamera, kCamera}, {640, 480}, "poses[1]", false, false},
        {{kAtOrigin, right}, {kCamera, kCamera}, {0, 480}, "width", false, false},
        {{kAtOrigin, right}, {kCamera, kCamera}, {640, -1}, "height", false, false}};
    CircleMarkerExtractor e;
    for (const auto& [poses, cameras, size, name, hasCameras, hasTurn] : cases) {
        e = {};
        EXPECT_EQ(refused([&, &p = poses, &c = cameras, &s = size] { takeIn(e, p, c, s.width, s.height); }), name);
        EXPECT_TRUE(!e.leftIntrinsic.empty() == hasCameras && !e.rotation.empty() == hasTurn) << name;
        EXPECT_TRUE(!hasTurn || (e.fundamental.size() == cv::Size(3, 3) && cv::countNonZero(e.fundamental) == 0));
    }
    EXPECT_THROW(takeIn(e, {kAtOrigin}, {kCamera, kCamera}), std::out_of_range);

    cv::Mat I = cv::Mat::eye(3, 3, CV_64F), T = (cv::Mat_<double>(3, 1) << 1, 2, 3), F = I;  // shares its pixels
    e.CalcFoundationMat(I, T, I, I, F);
    EXPECT_EQ(cv::Matx33d(F), cv::Matx33d(0, 3, -2, -3, 0, 1, 2, -1, 0)) << "the cross product with -T";
    EXPECT_EQ(cv::Matx33d(I), cv::Matx33d::eye());
}

TEST(SetStereorectifyParam, NamesTheMatrixThatIsWrong) {
    const cv::Mat P = cv::Mat::ones(3, 4, CV_64F), R = cv::Mat::eye(3, 3, CV_64F), odd = cv::Mat::ones(2, 2, CV_64F);
    // Matrices, warning, which of left and right are taken.
    const std::tuple<std::vector<cv::Mat>, std::string, bool, bool> cases[] = {
        {{P, P, R}, "211   Warning: input matrixes num error!\n", false, false},
        {{odd, P, R, R}, "217   Warning: the first matrix size error!\n", false, false},
        {{P, R, R, R}, "226   Warning: the second matrix size error!\n", true, false},
        {{P, P, P, R}, "235   Warning: the third matrix size error!\n", true, true},
        {{P, P, R, odd, odd}, "", true, true}};
    for (const auto& [matrices, text, left, right] : cases) {
        CircleMarkerExtractor e;
        const auto set = [&e, &given = matrices, good = text.empty()] { EXPECT_EQ(e.SetStereorectifyParam(given), good); };
        EXPECT_EQ(warningsOf(set), text.empty() ? "" : "MarkerExtractor.h: " + text);
        EXPECT_TRUE(!e.leftProjection.empty() == left && !e.leftIntrinsic.empty() == left) << text;
        EXPECT_TRUE(!e.rightProjection.empty() == right && !e.rightIntrinsic.empty() == right) << text;
        EXPECT_EQ(e.rightRectification.size() == odd.size(), text.empty());
    }
}

TEST(SetTriangulationIntrinsicMatrix, MapsConicsOfTheNormalisedPlaneToPixels) {
    CircleMarkerExtractor e;
    const cv::Mat K = (cv::Mat_<double>(3, 4) << 900, 5, 310, 0, 0, 850, 260, 0, 0, 0, 1, 0);
    e.SetTriangulationIntrinsicMatrix(K, 2 * K);
    const auto monomials = [](double x, double y) { return (Eigen::VectorXd(6) << x * x, x * y, y * y, x, y, 1).finished(); };
    const Eigen::VectorXd conic = (Eigen::VectorXd(6) << 2, -0.5, 3, 0.1, -0.2, -1).finished();
    for (const auto& [x, y] : {std::pair{300.0, 200.0}, std::pair{12.0, 700.0}})
        EXPECT_NEAR((e.triangulationC * conic).dot(monomials(x, y)), conic.dot(monomials((x - 310) / 900, (y - 260) / 850)), 1e-9);
    EXPECT_EQ(e.triangulationA, (Eigen::Matrix3d() << 900, 0, 310, 0, 850, 260, 0, 0, 1).finished()) << "skew is dropped";
    EXPECT_EQ(e.triangulationB(0, 2), 620);
    e.SetTriangulationIntrinsicMatrix(2 * K, K);
    EXPECT_EQ(e.triangulationB(0, 2), 620) << "the first call decides";
    using E = CircleMarkerExtractor;
    for (const auto member : {&E::triangulationA, &E::triangulationB, &E::triangulationC, &E::triangulationD}) {
        E part = e;
        (part.*member).resize(0, 0);
        part.SetTriangulationIntrinsicMatrix(2 * K, K);
        EXPECT_EQ(part.triangulationB(0, 2), 310) << "of all four";
    }
}

TEST(ConicToEllipse, ReadsEitherSignAndLetsTheRestThrough) {
    const auto ellipseOf = [](const std::array<double, 6>& q, double f = 1) {
        return conicToEllipse(f * q[0], f * q[1], f * q[2], f * q[3], f * q[4], f * q[5]);
    };
    const scene::Rig rig = scene::makeVergedRig({1280, 1024});
    for (const scene::Disc& disc : scene::makeScatteredDiscs(rig, 20, 10, 20, 50, 200, 5)) {
        const scene::EllipseTruth truth = scene::projectDisc(rig.left, disc);
        for (const double sign : {1.0, -7.0}) {
            const EllipseParams e = ellipseOf(truth.conic, sign);
            // The width lies along the angle; which axis that is, is the conic's business.
            const cv::Vec4d actual(e.centerX, e.centerY, std::max(e.width, e.height), std::min(e.width, e.height));
            const cv::Vec4d expected(truth.centre.x, truth.centre.y, 2 * truth.majorHalfAxis, 2 * truth.minorHalfAxis);
            EXPECT_LT(cv::norm(actual, expected, cv::NORM_INF), 1e-2) << sign;
            EXPECT_NEAR(std::remainder(e.angle + (e.width > e.height ? 0 : 90) - truth.angle * 180 / CV_PI, 180), 0, 1e-3) << sign;
        }
    }
    // Below 0 an angle turns by pi in single precision, 5.0e-6 degrees too far: one step of the result.
    const double c2 = std::cos(200 * CV_PI / 180), s2 = std::sin(200 * CV_PI / 180);
    EXPECT_EQ(ellipseOf({5 + 3 * c2, 6 * s2, 5 - 3 * c2, 0, 0, -1}).angle, std::nextafter(100.0f, 101.0f));
    const std::tuple<std::array<double, 6>, float, float> cases[] = {{{0, 0, 0, 0, 0, 0}, 0, 0},         {{1, 0, 0, 0, -1, 0}, 0, 0},
                                                                     {{1e-10, 0, 1, 0, 0, -1}, 0, 0},    {{1, 0, -1, -2, 0, 0}, 1, 2},
                                                                     {{1.01e-10, 0, 1, 0, 0, -1}, 0, 2}, {{NAN, 0, 1, 0, 0, -1}, 0, NAN}};
    for (const auto& [q, centre, width] : cases) {
        const float off = std::abs(ellipseOf(q).width - width);
        EXPECT_TRUE(ellipseOf(q).centerX == centre && (std::isnan(width) ? std::isnan(ellipseOf(q).width) : off < 1e-6f)) << q[2];
    }
}

TEST(StereoRectifyCorners, CarriesConicsAsTheRectifiedCameraSeesThem) {
    const scene::Rig rig = scene::makeVergedRig({1280, 1024});
    CircleMarkerExtractor e = calibrated(rig);
    const scene::Rig rectified = rectifiedRig(e, rig);
    auto [left, right, seen] = exactCorners(rig, scene::makeCurvedObject(rig, 12, 4, 7, 200, 5));
    ASSERT_GE(left.size(), 8u);
    left[1].conicValid = false;
    for (Corner& corner : left) corner.contour = {cv::Point2d(corner.x, corner.y)};
    const auto rectify = [&e](const std::vector<Corner>& from, std::vector<Corner>& to, const cv::Mat& homography) {
        e.StereoRectifyCorners(from, to, e.leftIntrinsic, cv::Mat(), e.leftRectification, e.leftProjection, homography);
    };
    std::vector<Corner> target(left.size()), inPlace = left;
    rectify(left, target, e.leftHomography);
    rectify(inPlace, inPlace, e.leftHomography);
    ASSERT_EQ(target.size(), left.size());
    for (std::size_t k = 0; k < left.size(); ++k) {
        const Corner& t = target[k];
        const scene::EllipseTruth truth = scene::projectDisc(rectified.left, seen[k]);
        // One without a conic stays as it was. The axes come from the conic at the rounded centre.
        EXPECT_NEAR(std::max(t.ellipse.size.width, t.ellipse.size.height), k == 1 ? 0 : 2 * truth.majorHalfAxis, k == 1 ? 0 : 2e-2);
        EXPECT_TRUE(k == 1 || (std::hypot(t.x - truth.centre.x, t.y - truth.centre.y) < 1e-3 && t.x == static_cast<float>(t.x))) << k;
        EXPECT_LT(distance(cv::Matx33d(e.leftHomography) * cv::Vec3d(left[k].x, left[k].y, 1), t.contour[0]), 1e-3);
        EXPECT_EQ(t.conic, left[k].conic) << "that of the unrectified image";
        EXPECT_TRUE(inPlace[k].x == t.x && inPlace[k].contour == t.contour);
    }
    rectify(left, target, cv::Mat::zeros(3, 3, CV_64F));  // a singular homography maps every conic to nothing
    EXPECT_EQ(cv::Vec2d(target[0].x, target[0].ellipse.size.width), cv::Vec2d());
    rectify({left[1]}, target, cv::Mat::eye(3, 3, CV_32F));  // there is no conic to carry over
    EXPECT_EQ(target.size(), 1U);
}

}  // namespace kestrune::test::calibration
