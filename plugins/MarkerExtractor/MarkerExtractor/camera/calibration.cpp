// SPDX-License-Identifier: Apache-2.0
#include <algorithm>
#include <cmath>
#include <opencv2/calib3d.hpp>
#include <stdexcept>

#include "MarkerExtractor/camera/calibration_check.h"
#include "checks/fixed_text.h"
#include "checks/settings_check.h"
#include "kestrune/MarkerExtractor.h"
#include "logging/report_sites.h"

namespace kestrune {

namespace {

using HostPose = Pose_<double>;
using HostCamera = Camera_<double, 2, 2>;

const cv::Rect kLeftBlock(0, 0, 3, 3);  ///< first three columns of a 3 by 4 matrix
const cv::Rect kLastColumn(3, 0, 1, 3);
constexpr int kUsedCameraValues = 9;  ///< of ten

cv::Mat intrinsicOf(const HostCamera& camera) {
    const double* const v = camera.values;
    return (cv::Mat_<double>(3, 3) << v[0], 0, v[2], 0, v[1], v[3], 0, 0, 1);
}

cv::Mat distortionOf(const HostCamera& camera) {
    const double* const v = camera.values + 4;
    return (cv::Mat_<double>(1, 5) << v[0], v[1], v[2], v[3], v[4]);
}

cv::Mat rotationOf(const HostPose& pose) {
    const double* const a = pose.values;
    return (cv::Mat_<double>(3, 3) << a[0], a[1], a[2], a[3], a[4], a[5], a[6], a[7], a[8]);
}

/// t = -A c.
cv::Mat translationOf(const HostPose& pose) {
    const double* const c = pose.values + 9;
    cv::Mat t(3, 1, CV_64F);
    for (int row = 0; row < 3; ++row) {
        const double* const a = pose.values + 3 * row;
        t.at<double>(row) = -(a[0] * c[0] + a[1] * c[1] + a[2] * c[2]);
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

/// Identity with the signed baseline in the last column: in its first row for a horizontal rig, in its second for a
/// vertical one. The sign is that of the rectified projection.
cv::Mat rectifiedTriangulation(const cv::Mat& translation, const cv::Mat& rightProjection) {
    cv::Mat result = cv::Mat::zeros(3, 4, CV_64F);
    for (int k = 0; k < 3; ++k) result.at<double>(k, k) = 1.0;
    const double baseline = cv::norm(translation, cv::NORM_L2);
    for (const int row : {0, 1}) {
        const double shift = rightProjection.at<double>(row, 3);
        if (shift == 0.0) continue;
        result.at<double>(row, 3) = shift > 0.0 ? baseline : -baseline;
        break;
    }
    return result;
}

cv::Mat rectifyingHomography(const cv::Mat& projection, const cv::Mat& rectification, const cv::Mat& intrinsic) {
    return projection(kLeftBlock) * rectification * intrinsic.inv(cv::DECOMP_LU);
}

/// Product in 32 bits, which wraps. A negative one sizes nothing: every call sizes the lists anew in any case.
std::size_t wrappedPixelCount(int width, int height) {
    const auto product =
        static_cast<std::int32_t>(static_cast<std::uint32_t>(width) * static_cast<std::uint32_t>(height));
    return static_cast<std::size_t>(std::max(product, 0));
}

struct Pinhole {
    explicit Pinhole(const cv::Mat& matrix)
        : fx(matrix.at<double>(0, 0)),
          fy(matrix.at<double>(1, 1)),
          cx(matrix.at<double>(0, 2)),
          cy(matrix.at<double>(1, 2)) {}
    double fx, fy, cx, cy;
};

Eigen::MatrixXd cameraMatrixOf(const Pinhole& p) {
    Eigen::MatrixXd matrix = Eigen::MatrixXd::Identity(3, 3);
    matrix(0, 0) = p.fx;
    matrix(1, 1) = p.fy;
    matrix(0, 2) = p.cx;
    matrix(1, 2) = p.cy;
    return matrix;
}

/// Takes the coefficients of a conic on the normalised plane to those of the same conic in pixels: column j holds
/// monomial j of (u^2, u v, v^2, u, v, 1) with u = (x - cx) / fx, v = (y - cy) / fy, expanded in (x^2, x y, y^2, x, y,
/// 1).
Eigen::MatrixXd conicMapOf(const Pinhole& p) {
    const double fxfx = p.fx * p.fx, fyfy = p.fy * p.fy, fyfx = p.fy * p.fx;
    Eigen::MatrixXd map = Eigen::MatrixXd::Zero(6, 6);
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

}  // namespace

// Every matrix is made anew and then handed to its member, so that a copy of the extractor keeps its own calibration.
void CircleMarkerExtractor::transform_kestruneData2cvMat(const std::vector<HostPose>& poses,
                                                         const std::vector<HostCamera>& cameras, int width, int height,
                                                         int rectifyFlags) {
    if (cameras.size() < 2) throw std::out_of_range("invalid vector subscript");
    checkIntake(poses, cameras, width, height);
    leftIntrinsic = intrinsicOf(cameras[0]);
    rightIntrinsic = intrinsicOf(cameras[1]);
    leftDistortion = distortionOf(cameras[0]);
    rightDistortion = distortionOf(cameras[1]);
    if (poses.size() < 2) throw std::out_of_range("invalid vector subscript");

    const cv::Mat R = rotationOf(poses[1]) * rotationOf(poses[0]).t();
    const cv::Mat T = translationOf(poses[1]) - R * translationOf(poses[0]);
    rotation = R;
    translation = T;
    CalcFoundationMat(rotation, translation, leftIntrinsic, rightIntrinsic, fundamental);

    const cv::Size size(width, height);
    cv::Mat R1, R2, P1, P2, Q;
    cv::Rect leftRegion, rightRegion;
    cv::stereoRectify(leftIntrinsic, leftDistortion, rightIntrinsic, rightDistortion, size, rotation, translation, R1,
                      R2, P1, P2, Q, rectifyFlags, -1.0, size, &leftRegion, &rightRegion);
    leftRectification = R1;
    rightRectification = R2;
    leftProjection = P1;
    rightProjection = P2;
    disparityToDepth = Q;

    cv::Mat x1, y1, x2, y2;
    cv::initUndistortRectifyMap(leftIntrinsic, leftDistortion, leftRectification, leftProjection, size, CV_32FC1, x1,
                                y1);
    cv::initUndistortRectifyMap(rightIntrinsic, rightDistortion, rightRectification, rightProjection, size, CV_32FC1,
                                x2, y2);
    leftMapX = x1;
    leftMapY = y1;
    rightMapX = x2;
    rightMapY = y2;

    leftTriangulation = cv::Mat(3, 4, CV_64F);
    rotation.copyTo(leftTriangulation(kLeftBlock));
    translation.copyTo(leftTriangulation(kLastColumn));
    rightTriangulation = rectifiedTriangulation(translation, rightProjection);
    leftHomography = rectifyingHomography(leftProjection, leftRectification, leftIntrinsic);
    rightHomography = rectifyingHomography(rightProjection, rightRectification, rightIntrinsic);

    imageWidth = width;
    imageHeight = height;
    const std::size_t pixels = wrappedPixelCount(width, height);
    scratchBlurFull.resize(pixels);
    scratchEdgeMask.resize(pixels);
    scratchBinary.resize(pixels);
    scratchLabels.resize(pixels);
}

void CircleMarkerExtractor::CalcFoundationMat(cv::Mat& R, cv::Mat& T, cv::Mat& K1, cv::Mat& K2, cv::Mat& F) {
    requireMatrix(R, 3, 3, "R");
    requireData(T, "T");
    if (T.dims != 2 || T.type() != CV_64FC1 || T.total() != 3) requireMatrix(T, 3, 1, "T");
    requireMatrix(K1, 3, 3, "K1");
    requireMatrix(K2, 3, 3, "K2");
    const cv::Mat backLeft = K1.inv(cv::DECOMP_LU);
    const cv::Mat backRight = K2.inv(cv::DECOMP_LU);
    cv::Mat backRightTransposed;
    cv::transpose(backRight, backRightTransposed);
    const double t0 = T.at<double>(0), t1 = T.at<double>(1), t2 = T.at<double>(2);
    // The cross-product matrix of -T. An epipolar constraint is zero with either sign, and stored matrices have this
    // one.
    const cv::Mat cross = (cv::Mat_<double>(3, 3) << 0, t2, -t1, -t2, 0, t0, t1, -t0, 0);
    const cv::Mat fundamentalMatrix = backRightTransposed * cross * R * backLeft;
    F = fundamentalMatrix;  // a new matrix: F's old pixels may be those of an input or of a copied extractor
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
    const Pinhole leftCamera(left), rightCamera(right);
    triangulationA = cameraMatrixOf(leftCamera);
    triangulationB = cameraMatrixOf(rightCamera);
    triangulationC = conicMapOf(leftCamera);
    triangulationD = conicMapOf(rightCamera);
}

}  // namespace kestrune
