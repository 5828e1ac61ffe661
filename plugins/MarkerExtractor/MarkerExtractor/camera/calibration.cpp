// SPDX-License-Identifier: Apache-2.0
#include <algorithm>
#include <cmath>
#include <opencv2/calib3d.hpp>
#include <stdexcept>

#include "MarkerExtractor/camera/calibration_check.h"
#include "checks/fixed_text.h"
#include "checks/settings_check.h"
#include "kestrune/MarkerExtractor.h"
#include "kestrune_geometry/pinhole.h"
#include "logging/report_sites.h"

namespace kestrune {

namespace {

using HostPose = Pose_<double>;
using HostCamera = Camera_<double, 2, 2>;

const cv::Rect kLeftBlock(0, 0, 3, 3);  ///< first three columns of a 3 by 4 matrix
constexpr int kUsedCameraValues = 9;    ///< of ten
constexpr const char* kBadIndex = "invalid vector subscript";

cv::Mat intrinsicOf(const HostCamera& camera) {
    const double* const v = camera.values;
    return cv::Mat(geometry::Pinhole{v[0], v[1], v[2], v[3]}.matrix());
}

cv::Mat distortionOf(const HostCamera& camera) {
    return cv::Mat(cv::Matx<double, 1, 5>(camera.values + 4));
}

cv::Matx33d rotationOf(const HostPose& pose) {
    return cv::Matx33d(pose.values);
}

/// t = -A c.
cv::Vec3d translationOf(const HostPose& pose) {
    const double* const c = pose.values + 9;
    cv::Vec3d t;
    for (int row = 0; row < 3; ++row) {
        const double* const a = pose.values + 3 * row;
        t[row] = -(a[0] * c[0] + a[1] * c[1] + a[2] * c[2]);
    }
    return t;
}

void requireFinite(const double* values, int count, const char* list, std::size_t index) {
    const double* const bad = std::find_if_not(values, values + count, [](double v) { return std::isfinite(v); });
    if (bad == values + count) return;
    refuseSetting(cv::format("%s[%zu]", list, index),
                  "value " + std::to_string(bad - values) + " is " + fixedText(*bad, 6) + "; all must be finite");
}

/// Size and numbers of an intake with two cameras, before the first member is replaced.
void checkIntake(const std::vector<HostPose>& poses, const std::vector<HostCamera>& cameras, int width, int height) {
    if (width < 1) refuseSetting("width", std::to_string(width) + " is below 1");
    if (height < 1) refuseSetting("height", std::to_string(height) + " is below 1");
    for (std::size_t k = 0; k < 2; ++k) requireFinite(cameras[k].values, kUsedCameraValues, "cameras", k);
    for (std::size_t k = 0; k < std::min<std::size_t>(poses.size(), 2); ++k) {
        requireFinite(poses[k].values, 12, "poses", k);
    }
}

/// [R, T].
cv::Mat poseMatrix(const cv::Mat& rotation, const cv::Mat& translation) {
    cv::Mat pose;
    cv::hconcat(rotation, translation, pose);
    return pose;
}

/// Identity with the signed baseline in the last column: in its first row for a horizontal rig, in its second for a
/// vertical one. The sign is that of the rectified projection.
cv::Mat rectifiedTriangulation(const cv::Mat& translation, const cv::Matx34d& rightProjection) {
    cv::Matx34d result = cv::Matx34d::eye();
    const double baseline = cv::norm(translation, cv::NORM_L2);
    for (const int row : {0, 1}) {
        const double shift = rightProjection(row, 3);
        if (shift == 0.0) continue;
        result(row, 3) = shift > 0.0 ? baseline : -baseline;
        break;
    }
    return cv::Mat(result);
}

cv::Mat rectifyingHomography(const cv::Mat& projection, const cv::Mat& rectification, const cv::Mat& intrinsic) {
    return projection(kLeftBlock) * rectification * intrinsic.inv(cv::DECOMP_LU);
}

/// K2^-T [-T]x R K1^-1. An epipolar constraint is zero with either sign; it is that of -T which the members have.
cv::Matx33d fundamentalOf(const cv::Matx33d& R, const cv::Vec3d& T, const cv::Matx33d& K1, const cv::Matx33d& K2) {
    return K2.inv(cv::DECOMP_LU).t() * geometry::crossMatrix(-T) * R * K1.inv(cv::DECOMP_LU);
}

/// Product in 32 bits, which wraps. A negative one sizes nothing: every call sizes the lists anew in any case.
std::size_t wrappedPixelCount(int width, int height) {
    const auto product =
        static_cast<std::int32_t>(static_cast<std::uint32_t>(width) * static_cast<std::uint32_t>(height));
    return static_cast<std::size_t>(std::max(product, 0));
}

Eigen::MatrixXd eigenOf(const cv::Matx33d& matrix) {
    return Eigen::Map<const Eigen::Matrix<double, 3, 3, Eigen::RowMajor>>(matrix.val);
}

/// Takes the coefficients of a conic on the normalised plane to those of the same conic in pixels: column j holds
/// monomial j of (u^2, u v, v^2, u, v, 1), where u = (x - cx) / fx and v = (y - cy) / fy, in terms of
/// (x^2, x y, y^2, x, y, 1).
Eigen::Matrix<double, 6, 6> conicMapOf(const geometry::Pinhole& p) {
    const double fxfx = p.fx * p.fx, fyfy = p.fy * p.fy, fyfx = p.fy * p.fx;
    Eigen::Matrix<double, 6, 6> map = Eigen::Matrix<double, 6, 6>::Zero();
    map(0, 0) = 1 / fxfx;
    map(3, 0) = -2 * p.cx / fxfx;
    map(5, 0) = p.cx * p.cx / fxfx;
    map(1, 1) = 1 / fyfx;
    map(3, 1) = -p.cy / fyfx;
    map(4, 1) = -p.cx / fyfx;
    map(5, 1) = p.cy * p.cx / fyfx;
    map(2, 2) = 1 / fyfy;
    map(4, 2) = -2 * p.cy / fyfy;
    map(5, 2) = p.cy * p.cy / fyfy;
    map(3, 3) = 1 / p.fx;
    map(5, 3) = -p.cx / p.fx;
    map(4, 4) = 1 / p.fy;
    map(5, 4) = -p.cy / p.fy;
    map(5, 5) = 1;
    return map;
}

// The steps of the intake. Every matrix is made anew and then handed to its member, so that a copy of the extractor
// keeps its own calibration.

void takeCameras(CircleMarkerExtractor& e, const std::vector<HostCamera>& cameras) {
    e.leftIntrinsic = intrinsicOf(cameras[0]);
    e.rightIntrinsic = intrinsicOf(cameras[1]);
    e.leftDistortion = distortionOf(cameras[0]);
    e.rightDistortion = distortionOf(cameras[1]);
}

void takeRelativePose(CircleMarkerExtractor& e, const HostPose& left, const HostPose& right) {
    const cv::Matx33d R = rotationOf(right) * rotationOf(left).t();
    const cv::Vec3d T = translationOf(right) - R * translationOf(left);
    e.rotation = cv::Mat(R);
    e.translation = cv::Mat(T);
    e.fundamental = cv::Mat(fundamentalOf(R, T, e.leftIntrinsic, e.rightIntrinsic));
}

void takeRectification(CircleMarkerExtractor& e, const cv::Size& size, int flags) {
    cv::Mat R1, R2, P1, P2, Q;
    cv::Rect leftRegion, rightRegion;
    cv::stereoRectify(e.leftIntrinsic, e.leftDistortion, e.rightIntrinsic, e.rightDistortion, size, e.rotation,
                      e.translation, R1, R2, P1, P2, Q, flags, -1.0, size, &leftRegion, &rightRegion);
    e.leftRectification = R1;
    e.rightRectification = R2;
    e.leftProjection = P1;
    e.rightProjection = P2;
    e.disparityToDepth = Q;
}

void takeMaps(CircleMarkerExtractor& e, const cv::Size& size) {
    cv::Mat x1, y1, x2, y2;
    cv::initUndistortRectifyMap(e.leftIntrinsic, e.leftDistortion, e.leftRectification, e.leftProjection, size,
                                CV_32FC1, x1, y1);
    cv::initUndistortRectifyMap(e.rightIntrinsic, e.rightDistortion, e.rightRectification, e.rightProjection, size,
                                CV_32FC1, x2, y2);
    e.leftMapX = x1;
    e.leftMapY = y1;
    e.rightMapX = x2;
    e.rightMapY = y2;
}

void takeTriangulation(CircleMarkerExtractor& e) {
    e.leftTriangulation = poseMatrix(e.rotation, e.translation);
    e.rightTriangulation = rectifiedTriangulation(e.translation, e.rightProjection);
    e.leftHomography = rectifyingHomography(e.leftProjection, e.leftRectification, e.leftIntrinsic);
    e.rightHomography = rectifyingHomography(e.rightProjection, e.rightRectification, e.rightIntrinsic);
}

void sizeScratch(CircleMarkerExtractor& e, int width, int height) {
    e.imageWidth = width;
    e.imageHeight = height;
    const std::size_t pixels = wrappedPixelCount(width, height);
    e.scratchBlurFull.resize(pixels);
    e.scratchEdgeMask.resize(pixels);
    e.scratchBinary.resize(pixels);
    e.scratchLabels.resize(pixels);
}

}  // namespace

void CircleMarkerExtractor::transform_kestruneData2cvMat(const std::vector<HostPose>& poses,
                                                         const std::vector<HostCamera>& cameras, int width, int height,
                                                         int rectifyFlags) {
    if (cameras.size() < 2) throw std::out_of_range(kBadIndex);
    checkIntake(poses, cameras, width, height);
    takeCameras(*this, cameras);
    if (poses.size() < 2) throw std::out_of_range(kBadIndex);
    takeRelativePose(*this, poses[0], poses[1]);
    takeRectification(*this, {width, height}, rectifyFlags);
    takeMaps(*this, {width, height});
    takeTriangulation(*this);
    sizeScratch(*this, width, height);
}

void CircleMarkerExtractor::CalcFoundationMat(cv::Mat& R, cv::Mat& T, cv::Mat& K1, cv::Mat& K2, cv::Mat& F) {
    requireMatrix(R, 3, 3, "R");
    requireData(T, "T");
    if (T.dims != 2 || T.type() != CV_64FC1 || T.total() != 3) requireMatrix(T, 3, 1, "T");
    requireMatrix(K1, 3, 3, "K1");
    requireMatrix(K2, 3, 3, "K2");
    const cv::Vec3d t(T.at<double>(0), T.at<double>(1), T.at<double>(2));
    F = cv::Mat(fundamentalOf(R, t, K1, K2));  // new: F's old pixels may be those of an input or of a copied extractor
}

bool CircleMarkerExtractor::SetStereorectifyParam(std::vector<cv::Mat> matrices) {
    const auto hasSize = [&matrices](std::size_t k, int rows, int columns) {
        return matrices[k].rows == rows && matrices[k].cols == columns;
    };
    if (matrices.size() < 4) {
        reportWarning(report_sites::kTooFewMatrices);
        return false;
    }
    for (std::size_t k = 0; k < 4; ++k) requireData(matrices[k], cv::format("matrices[%zu]", k));
    if (!hasSize(0, 3, 4)) {
        reportWarning(report_sites::kFirstMatrixSize);
        return false;
    }
    leftProjection = matrices[0].clone();
    leftIntrinsic = matrices[0](kLeftBlock).clone();
    if (!hasSize(1, 3, 4)) {
        reportWarning(report_sites::kSecondMatrixSize);
        return false;
    }
    rightProjection = matrices[1].clone();
    rightIntrinsic = matrices[1](kLeftBlock).clone();
    if (!hasSize(2, 3, 3)) {
        reportWarning(report_sites::kThirdMatrixSize);
        return false;
    }
    leftRectification = matrices[2].clone();
    rightRectification = matrices[3].clone();  // of any size: it is met where it is used
    return true;
}

void CircleMarkerExtractor::SetTriangulationIntrinsicMatrix(const cv::Mat& left, const cv::Mat& right) {
    if (triangulationA.size() != 0 && triangulationB.size() != 0 && triangulationC.size() != 0 &&
        triangulationD.size() != 0) {
        return;  // the first call decides for the object's life
    }
    requireLeastMatrix(left, 2, 3, "left camera matrix");
    requireLeastMatrix(right, 2, 3, "right camera matrix");
    const auto leftCamera = geometry::Pinhole::of(left), rightCamera = geometry::Pinhole::of(right);
    triangulationA = eigenOf(leftCamera.matrix());
    triangulationB = eigenOf(rightCamera.matrix());
    triangulationC = conicMapOf(leftCamera);
    triangulationD = conicMapOf(rightCamera);
}

}  // namespace kestrune
