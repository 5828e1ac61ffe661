// SPDX-License-Identifier: Apache-2.0
#include "MarkerExtractor/stereo/conic_rig.h"

#include <opencv2/calib3d.hpp>

#include "MarkerExtractor/camera/calibration_check.h"
#include "checks/settings_check.h"

namespace kestrune {

namespace {

using Matrix34 = cv::Matx34d;

Matrix34 poseFrom(const cv::Matx33d& rotation) {
    Matrix34 pose = Matrix34::zeros();
    for (int r = 0; r < 3; ++r) {
        for (int c = 0; c < 3; ++c) pose(r, c) = rotation(r, c);
    }
    return pose;
}

/// Fundamental matrix of a rectified pair: its rows are epipolar lines, or its columns where the cameras stand above
/// each other.
std::optional<cv::Matx33d> rectifiedFundamental(const Matrix34& rightProjection) {
    if (rightProjection(0, 3) != 0) return cv::Matx33d(0, 0, 0, 0, 0, -1, 0, 1, 0);
    if (rightProjection(1, 3) != 0) return cv::Matx33d(0, 0, 1, 0, 0, 0, -1, 0, 0);
    return std::nullopt;
}

std::vector<cv::Point2f> centresOf(const std::vector<Corner>& corners) {
    std::vector<cv::Point2f> points;
    points.reserve(corners.size());
    for (const Corner& c : corners) points.emplace_back(static_cast<float>(c.x), static_cast<float>(c.y));
    return points;
}

std::vector<cv::Point2f> rectified(const std::vector<cv::Point2f>& points, const cv::Mat& camera,
                                   const cv::Mat& rectification, const cv::Mat& projection) {
    std::vector<cv::Point2f> result;
    cv::undistortPoints(points, result, camera, cv::Mat(), rectification, projection);
    return result;
}

}  // namespace

void requireConicCalibration(const CircleMarkerExtractor& extractor, bool cornersRectified) {
    requireMatrix(extractor.leftProjection, 3, 4, "leftProjection");
    requireMatrix(extractor.rightProjection, 3, 4, "rightProjection");
    if (cornersRectified) {
        requireMatrix(extractor.rightTriangulation, 3, 4, "rightTriangulation");
    } else {
        requireMatrix(extractor.leftIntrinsic, 3, 3, "leftIntrinsic");
        requireMatrix(extractor.rightIntrinsic, 3, 3, "rightIntrinsic");
        requireMatrix(extractor.leftRectification, 3, 3, "leftRectification");
        requireMatrix(extractor.rightRectification, 3, 3, "rightRectification");
        requireMatrix(extractor.leftTriangulation, 3, 4, "leftTriangulation");
        requireMatrix(extractor.fundamental, 3, 3, "fundamental");
    }
    requireMatrixOfEitherPrecision(extractor.disparityToDepth, 4, 4, "disparityToDepth");
    // Members that a host has filled itself, all four, are left alone by `SetTriangulationIntrinsicMatrix`.
    const Eigen::MatrixXd &A = extractor.triangulationA, &B = extractor.triangulationB;
    if (A.size() == 0 || B.size() == 0 || extractor.triangulationC.size() == 0 || extractor.triangulationD.size() == 0)
        return;
    if (A.rows() != 3 || A.cols() != 3) refuseSetting("triangulationA", "is not 3 x 3");
    if (B.rows() != 3 || B.cols() != 3) refuseSetting("triangulationB", "is not 3 x 3");
}

ConicRig takeConicRig(CircleMarkerExtractor& extractor, bool cornersRectified) {
    const CircleMarkerExtractor& e = extractor;
    extractor.SetTriangulationIntrinsicMatrix(cornersRectified ? e.leftProjection : e.leftIntrinsic,
                                              cornersRectified ? e.rightProjection : e.rightIntrinsic);
    const Matrix34 pose(cornersRectified ? e.rightTriangulation : e.leftTriangulation);
    const cv::Matx33d turnBack = pose.get_minor<3, 3>(0, 0).inv(), unmoved = cv::Matx33d::eye();
    const DisparityMap map(e.disparityToDepth);
    if (cornersRectified) {
        const Matrix34 right(e.rightProjection);
        return {rectifiedFundamental(right),
                Matrix34(e.leftProjection),
                right,
                map,
                unmoved,
                pose,
                turnBack,
                e.triangulationA,
                e.triangulationB};
    }
    return {cv::Matx33d(e.fundamental),
            poseFrom(e.leftIntrinsic),
            cv::Matx33d(e.rightIntrinsic) * pose,
            map,
            cv::Matx33d(e.leftRectification).inv(),
            pose,
            turnBack,
            e.triangulationA,
            e.triangulationB};
}

RectifiedCentres rectifiedCentres(const std::vector<Corner>& left, const std::vector<Corner>& right,
                                  const CircleMarkerExtractor& e, bool cornersRectified) {
    RectifiedCentres centres{centresOf(left), centresOf(right)};
    if (cornersRectified) return centres;
    return {rectified(centres.left, e.leftIntrinsic, e.leftRectification, e.leftProjection),
            rectified(centres.right, e.rightIntrinsic, e.rightRectification, e.rightProjection)};
}

}  // namespace kestrune
