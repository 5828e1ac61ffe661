// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include "support/configs.h"
#include "support/rigs.h"

namespace kestrune {
namespace {

/// One rendered exposure of discs on a curved object, and an extractor that knows the rig.
class StereoFromImages : public testing::Test {
  protected:
    static void SetUpTestSuite() {
        rig_ = new scene::Rig(scene::makeVergedRig({1280, 1024}));
        exposure_ = new scene::Exposure(scene::render(*rig_, scene::makeCurvedObject(*rig_, 24, 4, 6, 190, 11), {}, {}));
    }
    static void TearDownTestSuite() {
        delete exposure_;
        delete rig_;
    }
    void SetUp() override { test::calibrate(extractor, *rig_); }

    static CicrleConfigs configs(bool conics) {
        CicrleConfigs c = test::discConfigs(conics);
        c.skipUndistort = false;
        c.sigma = conics ? 1.0 : 0.7;
        c.maxFitError = c.maxPointError = 2;
        c.maxRowDifference = 3;
        c.minDepth = 300;
        c.maxDepth = 3000;
        c.markerRadii = {4, 6};
        c.sizeTolerance = 0.25;
        c.minRadiusRatio = 0.8f;
        c.plainRowGate = true;
        c.deviationFactor = 3;
        c.edgeLengthTolerance = 0.2;
        c.edgeAngleTolerance = 0.2;
        return c;
    }

    struct Outcome {
        std::vector<std::pair<Corner, Corner>> pairs;
        std::vector<Point3_<double>> points{{1, 2, 3}};
        std::vector<cv::RotatedRect> left{3}, right{3};
        std::string log;
    };
    Outcome run(const cv::Mat& left, const cv::Mat& right, const CicrleConfigs& c) {
        Outcome o;
        testing::internal::CaptureStdout();
        o.pairs = getStereoMarker3dPoints(left, right, extractor, o.points, o.left, o.right, c);
        o.log = testing::internal::GetCapturedStdout();
        return o;
    }

    static const scene::Disc* nearest(const cv::Vec3d& point) {
        const scene::Disc* best = nullptr;
        for (const scene::MarkerTruth& m : exposure_->markers) {
            if (best == nullptr || cv::norm(m.disc.centre - point) < cv::norm(best->centre - point)) best = &m.disc;
        }
        return best;
    }

    static scene::Rig* rig_;
    static scene::Exposure* exposure_;
    CircleMarkerExtractor extractor;
};
scene::Rig* StereoFromImages::rig_ = nullptr;
scene::Exposure* StereoFromImages::exposure_ = nullptr;

TEST_F(StereoFromImages, MeasuresTheDiscsOnBothBranchesInBothFrames) {
    for (const bool conics : {true, false}) {
        std::vector<Point3_<double>> inCamera;
        for (const bool outputRectified : {false, true}) {
            CicrleConfigs c = configs(conics);
            c.outputRectified = outputRectified;
            const Outcome o = run(exposure_->image[0], exposure_->image[1], c);
            EXPECT_EQ(o.log, "");
            EXPECT_GE(o.pairs.size(), 22u) << conics;  // the constellation drops markers whose parallax stands out
            ASSERT_EQ(o.points.size(), o.pairs.size());
            EXPECT_EQ(o.left.size(), 24u);
            EXPECT_EQ(o.right.size(), 24u);
            int lastLeft = -1;
            for (std::size_t k = 0; k < o.pairs.size(); ++k) {
                const auto& [l, r] = o.pairs[k];
                EXPECT_EQ(l.id, static_cast<int>(k));
                EXPECT_EQ(r.id, static_cast<int>(k));
                EXPECT_TRUE(l.matched && r.matched);
                EXPECT_EQ(l.position, r.position);
                const cv::Vec3d position(l.position.x(), l.position.y(), l.position.z());
                const scene::Disc* disc = nearest(position);
                EXPECT_LT(cv::norm(disc->centre - position), conics ? 0.3 : 1.0) << conics << " " << k;
                const cv::Vec3d point(o.points[k].x, o.points[k].y, o.points[k].z);
                const cv::Vec3d expected = outputRectified ? cv::Vec3d(cv::Matx33d(extractor.leftRectification) * position) : position;
                EXPECT_LT(cv::norm(point - expected), 1e-9) << "the corners' positions stay in the camera's frame";
                if (conics) {
                    EXPECT_GT(l.normal.dot(Eigen::Vector3d(disc->normal.val)), 0.97);
                    EXPECT_NEAR(l.markerRadius, disc->radius, 0.4);
                }
                const int left = static_cast<int>(
                    std::find_if(o.left.begin(), o.left.end(),
                                 [&l = l](const cv::RotatedRect& rect) { return std::hypot(rect.center.x - l.x, rect.center.y - l.y) < 2; }) -
                    o.left.begin());
                EXPECT_GT(left, lastLeft) << "ascending left";
                lastLeft = left;
            }
        }
    }
}

TEST_F(StereoFromImages, SaysWhatFailed) {
    const cv::Mat empty, blank(1024, 1280, CV_8UC1, cv::Scalar(40));
    const cv::Mat &left = exposure_->image[0], &right = exposure_->image[1];
    const std::string eyes = "CircleMarkerExtractor: Please check the ", failed = " eye camera, failed to extract Marker Points.\n";
    const std::string noLeft = "WARN  MarkerExtractor.cpp:2411   " + eyes + "left" + failed,
                      noRight = "WARN  MarkerExtractor.cpp:2418   " + eyes + "right" + failed;
    const std::string none =
        "WARN  MarkerExtractor.cpp:4525   StereoMarkerMatcher: Please check the left eye camera or right eye camera, there are not any Marker Points "
        "in one of the frames.\n";
    const std::string noMatch =
        "WARN  MarkerExtractor.cpp:4520   StereoMarkerMatcher: Please check the left eye camera or right eye camera, failed to match Marker "
        "Points.\n";
    const std::string noRadius = "WARN  MarkerExtractor.cpp:3184   Wrong Parameter: Please check the radius of circular marker.\n";
    using Change = void (*)(CicrleConfigs&);
    const Change nothing = [](CicrleConfigs&) {}, tooFar = [](CicrleConfigs&c) { c.minDepth = 2900; };
    const struct {
        const char* what;
        cv::Mat left, right;
        bool conics;
        Change change;
        std::vector<std::string> lines;
        std::size_t points;
        bool rectsKept;
    } cases[] = {{"no left image", empty, right, true, nothing, {}, 1, true},
                 {"no right image", left, empty, false, nothing, {}, 1, true},
                 {"nothing on the left", blank, right, true, nothing, {noLeft, none}, 1, false},
                 {"nothing on the right", left, blank, false, nothing, {noRight, none}, 1, false},
                 {"nothing at all", blank, blank, true, nothing, {noLeft, noRight, none}, 1, false},
                 {"no match, conics", left, right, true, tooFar, {}, 0, false},
                 {"no match, constellation", left, right, false, tooFar, {noMatch}, 0, false},
                 {"no radius",
                  left,
                  right,
                  false,
                  [](CicrleConfigs& c) {
                      c.markerRadii = {0, -1};
                  },
                  {noRadius, noMatch},
                  0,
                  false}};
    for (const auto& c : cases) {
        CicrleConfigs settings = configs(c.conics);
        c.change(settings);
        const Outcome o = run(c.left, c.right, settings);
        EXPECT_TRUE(o.pairs.empty()) << c.what;
        EXPECT_EQ(o.points.size(), c.points) << c.what;
        EXPECT_EQ(o.left.size() == 3 && o.right.size() == 3, c.rectsKept) << c.what;
        EXPECT_EQ(static_cast<std::size_t>(std::count(o.log.begin(), o.log.end(), '\n')), c.lines.size()) << c.what << o.log;
        std::size_t at = 0;
        for (const std::string& line : c.lines) {
            at = o.log.find(line, at);
            EXPECT_NE(at, std::string::npos) << c.what << o.log;
        }
    }
    const CircleMarkerExtractor whole = extractor;
    using E = CircleMarkerExtractor;
    for (auto member :
         {&E::leftIntrinsic, &E::rightIntrinsic, &E::leftProjection, &E::rightProjection, &E::leftRectification, &E::rightRectification}) {
        extractor = whole;
        (extractor.*member).release();
        const Outcome uncalibrated = run(left, right, configs(true));
        EXPECT_TRUE(uncalibrated.pairs.empty() && uncalibrated.log.empty() && uncalibrated.points.size() == 1);
    }
}

TEST_F(StereoFromImages, TurnsThePointsOfRectifiedImagesAndLeavesTheCorners) {
    // A nearly parallel rig, photographed through its rectified cameras.
    scene::Rig rig = *rig_;
    cv::Rodrigues(cv::Vec3d(0.004, -0.02, 0.003), rig.right.rotation);
    rig.right.translation = -(rig.right.rotation * cv::Vec3d(30, 1, 2));
    test::calibrate(extractor, rig);
    const scene::Rig rectified = test::rectifiedRig(extractor, rig);
    const cv::Matx33d turn(extractor.leftRectification);
    auto discs = scene::makeCurvedObject(rig, 16, 4, 6, 190, 3);
    const scene::Exposure exposure = scene::render(rectified, discs, {}, {});
    for (const bool conics : {true, false}) {
        for (const bool outputRectified : {false, true}) {
            CicrleConfigs c = configs(conics);
            c.skipUndistort = c.cornersRectified = true;
            c.outputRectified = outputRectified;
            const Outcome o = run(exposure.image[0], exposure.image[1], c);
            EXPECT_GE(o.pairs.size(), 10u) << conics << o.log;
            for (std::size_t k = 0; k < o.pairs.size(); ++k) {
                const cv::Vec3d position(o.pairs[k].first.position.data()), point(o.points[k].x, o.points[k].y, o.points[k].z);
                EXPECT_LT(cv::norm(point - (outputRectified ? position : turn.t() * position)), 1e-6);
                double nearest = 1e9;
                for (const scene::Disc& d : discs) nearest = std::min(nearest, cv::norm(turn * d.centre - position));
                EXPECT_LT(nearest, 4) << "in the rectified frame; a short baseline sees depth badly";
            }
        }
    }
}

TEST_F(StereoFromImages, MeasuresDarkDiscsOnTheEdgeBasedPath) {
    CicrleConfigs c = configs(true), rims = test::rimConfigs();
    c.useRadialContours = false;
    c.useComplexExtract = true;
    c.aperture = 11, c.thresholdC = -5;
    c.minDiameter = rims.minDiameter, c.maxDiameter = rims.maxDiameter, c.minAxisRatio = rims.minAxisRatio;
    c.nmsFactor = rims.nmsFactor, c.edgePercentile = rims.edgePercentile;
    const Outcome o = run(255 - exposure_->image[0], 255 - exposure_->image[1], c);
    ASSERT_EQ(o.pairs.size(), 24u) << o.log;
    for (std::size_t k = 0; k < o.pairs.size(); ++k) {
        const cv::Vec3d point(o.points[k].x, o.points[k].y, o.points[k].z);
        const scene::Disc& disc = *nearest(point);
        EXPECT_LT(cv::norm(disc.centre - point), 0.05);
        EXPECT_NEAR(o.pairs[k].first.markerRadius, disc.radius, 0.1);
        EXPECT_GT(cv::Vec3d(o.pairs[k].first.normal.data()).dot(disc.normal), 0.99);
    }
}

TEST_F(StereoFromImages, RefusesCalibrationBeforeAnyWork) {
    for (const bool conics : {true, false}) {
        for (auto member :
             {&CircleMarkerExtractor::leftRectification, conics ? &CircleMarkerExtractor::fundamental : &CircleMarkerExtractor::leftHomography}) {
            CircleMarkerExtractor broken = extractor;
            (broken.*member) = cv::Mat::eye(2, 2, CV_32F);
            Outcome o;
            EXPECT_THROW(getStereoMarker3dPoints(exposure_->image[0], exposure_->image[1], broken, o.points, o.left, o.right, configs(conics)),
                         cv::Exception);
            EXPECT_EQ(o.points.size(), 1u);
            EXPECT_EQ(o.left.size(), 3u);
            EXPECT_TRUE(broken.markerRects.empty());
        }
    }
}

}  // namespace
}  // namespace kestrune
