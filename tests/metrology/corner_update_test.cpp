// SPDX-License-Identifier: Apache-2.0
#include "MarkerExtractor/stereo/conic_match.h"
#include "support/calls.h"
#include "support/configs.h"
#include "support/ellipses.h"

namespace kestrune::test::corner_update {

TEST(UpdateCorner, FillsWhatTheRecordsPromise) {
    for (const std::size_t count : {0u, 10u, 200u}) {
        const MarkerEstimate estimate = estimateOf(SmoothEllipse::of({1500.3, 900.6}, 30, 20, count == 10 ? 2.8 : 0.4));
        Corner corner;
        corner.contour.resize(count), corner.fitError = 0.3, corner.id = 7;
        updateCorner(corner, estimate);
        EXPECT_TRUE(corner.conicValid && corner.id == 7 && corner.fitError == 0.3);
        EXPECT_EQ(cv::Point2d(corner.x, corner.y), estimate.centre);
        EXPECT_EQ(corner.contour.size(), std::max<std::size_t>(count, 48));
        EXPECT_NEAR(geometry::valueAt(corner.conic, corner.x, corner.y), -1, 1e-9);
        EXPECT_LT(corner.fitResidual, 1e-5);
        EXPECT_NEAR(corner.area, 4 * 30 * 20, 1e-9);
        EXPECT_NEAR(corner.eccentricity, std::sqrt(5.0) / 3, 1e-12);
        cv::Vec<double, 6> sum;  // of the products of a column of points with the ones
        for (const cv::Point2f& p : corner.contour) {
            EXPECT_NEAR(geometry::valueAt(corner.conic, p.x, p.y), 0, 2e-5);
            const double x = p.x, y = p.y;
            sum += cv::Vec<double, 6>(x * x, x * y, y * y, x, y, 1);
        }
        for (int k = 0; k < 6; ++k) EXPECT_NEAR(corner.scatter(k, 5), sum[k], 1e-9 * sum[k]);
        const cv::RotatedRect again = geometry::ellipseOf(corner.conic);  // the angle is that of the width
        EXPECT_LT(corner.ellipse.size.width, corner.ellipse.size.height);
        EXPECT_NEAR(corner.ellipse.size.height, 60, 1e-4);
        EXPECT_NEAR(std::remainder(corner.ellipse.angle - (again.size.width < again.size.height ? 0 : 90) - again.angle, 180), 0, 1e-2);
        EXPECT_TRUE(corner.ellipse.angle >= 0 && corner.ellipse.angle < 180);
    }
    MarkerEstimate other = estimateOf(SmoothEllipse::of({5, 5}, 3, 2, 0));
    for (const auto status : {RefinementStatus::notADisc, RefinementStatus::refined}) {
        other.status = status;
        if (other.isRefined()) other.minorHalfAxis = kNaN;
        Corner corner;
        corner.x = 1, corner.contour.resize(2);
        updateCorner(corner, other);
        EXPECT_TRUE(corner.x == 1 && !corner.conicValid && corner.contour.size() == 2);
    }
}

/// Corners of each path, put right by what the discs look like, are matched as well as before, and their points are right.
TEST(UpdateCorner, ServesEveryMatcher) {
    const scene::Rig rig = scene::makeVergedRig({1280, 1024});
    const scene::Exposure exposure = scene::render(rig, scene::makeCurvedObject(rig, 24, 4, 6, 190, 11), {}, {});
    const auto worst = [&](const std::vector<Point3_<double>>& points, const cv::Matx33d& turn) {
        double result = 0;
        for (const Point3_<double>& p : points) {
            double nearest = 1e9;
            for (const auto& marker : exposure.markers) nearest = std::min(nearest, cv::norm(turn * cv::Vec3d(&p.x) - marker.disc.centre));
            result = std::max(result, nearest);
        }
        return result;
    };
    for (CicrleConfigs c : configsOfPaths()) {
        c.skipUndistort = false, c.maxFitError = c.maxPointError = 2, c.maxRowDifference = 2, c.minDepth = 300, c.maxDepth = 3000;
        c.markerRadii = {4, 6}, c.sizeTolerance = 0.1, c.minRadiusRatio = 0.8f;
        CircleMarkerExtractor e = calibrated(rig);
        std::vector<Corner> corners[2];
        for (int eye = 0; eye < 2; ++eye) {
            const cv::Mat image =
                c.useComplexExtract ? cv::Mat(255 - exposure.image[static_cast<std::size_t>(eye)]) : exposure.image[static_cast<std::size_t>(eye)];
            c.useComplexExtract ? e.CircleExtractComplex(image, corners[eye], eye, c) : e.CircleExtractSimple(image, corners[eye], eye, c);
            EXPECT_GE(corners[eye].size(), 22u);
            for (Corner& corner : corners[eye])
                for (const auto& marker : exposure.markers) {
                    const scene::EllipseTruth& truth = marker.eye[static_cast<std::size_t>(eye)];
                    if (cv::norm(truth.centre - cv::Point2d(corner.x, corner.y)) < 2) updateCorner(corner, estimateOf(ellipseOf(truth)));
                }
        }
        const std::size_t least = std::min(corners[0].size(), corners[1].size()) - 1;
        std::vector<std::pair<int, int>> pairs;
        std::vector<Point3_<double>> points, normals;
        std::vector<double> radii;
        matchConicCorners(corners[0], corners[1], pairs, points, normals, radii, e, c);
        EXPECT_GE(points.size(), least);
        EXPECT_LT(worst(points, cv::Matx33d::eye()), 0.02);
        for (const double r : radii) EXPECT_LT(std::min(std::abs(r - 4), std::abs(r - 6)), 1e-3);

        std::vector<Corner> flat[2];
        e.StereoRectifyCorners(corners[0], flat[0], e.leftIntrinsic, cv::Mat::zeros(1, 5, CV_64F), e.leftRectification, e.leftProjection,
                               e.leftHomography);
        e.StereoRectifyCorners(corners[1], flat[1], e.rightIntrinsic, cv::Mat::zeros(1, 5, CV_64F), e.rightRectification, e.rightProjection,
                               e.rightHomography);
        points.clear();
        cv::Mat turn = cv::Mat::eye(3, 3, CV_64F);
        pairs = getStereoRectifiedMarker3dPoints(flat[0], flat[1], {4, 6}, points, turn, e.leftProjection, e.rightProjection, 2, 300, 3000, false,
                                                 false, 0.25, 3, true, 0.2, 0.2);
        EXPECT_GE(points.size(), least - 1);
        EXPECT_LT(worst(points, cv::Matx33d(e.leftRectification).t()), 0.05);

        points.clear();
        const cv::Mat pose = [&] {
            cv::Mat p;
            cv::hconcat(e.rotation, e.translation, p);
            return p;
        }();
        getStereoMarker3dPoints(corners[0], corners[1], pose, e.leftIntrinsic, e.rightIntrinsic, e.fundamental, points);
        EXPECT_GE(points.size(), least / 2);  // it asks for no more than the epipolar line
        EXPECT_LT(worst(points, cv::Matx33d::eye()), 0.05);
    }
}

}  // namespace kestrune::test::corner_update
