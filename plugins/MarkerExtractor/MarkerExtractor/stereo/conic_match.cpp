// SPDX-License-Identifier: Apache-2.0
#include "MarkerExtractor/stereo/conic_match.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <opencv2/calib3d.hpp>

#include "MarkerExtractor/camera/calibration_check.h"

namespace kestrune {

namespace {

constexpr int kNobody = -1;
const cv::Rect kFirstThreeColumns(0, 0, 3, 3);

// Exponents of the score, a weighted geometric mean of four agreements that are each at most 1.
constexpr double kRatioWeight = 0.15;
constexpr double kNormalWeight = 0.25;
constexpr double kEpipolarWeight = 0.3;
constexpr double kRadiusWeight = 0.3;

/// What the two eyes' geometry is for this call.
struct StereoFrame {
    cv::Mat epipolar;                         ///< fundamental matrix; empty for a rectified pair without baseline
    cv::Mat leftProjection, rightProjection;  ///< 3 by 4
    cv::Mat frameRotation;                    ///< camera to rectified frame
    cv::Mat pose;                             ///< 3 by 4: left to right camera
    std::vector<cv::Point2f> leftRectified, rightRectified;
};

std::vector<cv::Point2f> centresOf(const std::vector<Corner>& corners) {
    std::vector<cv::Point2f> points;
    points.reserve(corners.size());
    for (const Corner& c : corners) points.emplace_back(static_cast<float>(c.x), static_cast<float>(c.y));
    return points;
}

StereoFrame cameraFrame(const CircleMarkerExtractor& e, const std::vector<cv::Point2f>& left,
                        const std::vector<cv::Point2f>& right) {
    StereoFrame frame;
    frame.epipolar = e.fundamental;
    frame.leftProjection = cv::Mat::zeros(3, 4, CV_64F);
    e.leftIntrinsic.copyTo(frame.leftProjection(kFirstThreeColumns));
    frame.rightProjection = e.rightIntrinsic * e.leftTriangulation;
    cv::undistortPoints(left, frame.leftRectified, e.leftIntrinsic, cv::Mat(), e.leftRectification, e.leftProjection);
    cv::undistortPoints(right, frame.rightRectified, e.rightIntrinsic, cv::Mat(), e.rightRectification,
                        e.rightProjection);
    frame.frameRotation = e.leftRectification;
    frame.pose = e.leftTriangulation;
    return frame;
}

/// Fundamental matrix of a rectified pair: its rows are epipolar lines, or its columns where the cameras stand above
/// each other.
cv::Mat rectifiedEpipolar(const cv::Mat& rightProjection) {
    if (rightProjection.at<double>(0, 3) != 0) return (cv::Mat_<double>(3, 3) << 0, 0, 0, 0, 0, -1, 0, 1, 0);
    if (rightProjection.at<double>(1, 3) != 0) return (cv::Mat_<double>(3, 3) << 0, 0, 1, 0, 0, 0, -1, 0, 0);
    return {};
}

StereoFrame rectifiedFrame(const CircleMarkerExtractor& e, const std::vector<cv::Point2f>& left,
                           const std::vector<cv::Point2f>& right) {
    return {rectifiedEpipolar(e.rightProjection),
            e.leftProjection,
            e.rightProjection,
            cv::Mat::eye(3, 3, CV_64F),
            e.rightTriangulation,
            left,
            right};
}

cv::Mat asMat(std::vector<Point3_<double>>& points) {
    return {static_cast<int>(points.size()), 1, CV_64FC3, points.data()};
}

/// What is known of a candidate beyond its entries in the outputs.
struct Candidate {
    double leftRadius, rightRadius, ratio, agreement;
    int combination;  ///< bit 0: index of the right normal, bit 1: index of the left one
    std::vector<cv::Point2f> leftCentres, rightCentres;

    std::size_t leftNormal() const { return static_cast<std::size_t>(combination >> 1); }
    std::size_t rightNormal() const { return static_cast<std::size_t>(combination & 1); }
};

/// Chooses the two normals that agree best, of equal ones the first, and their mean.
Point3_<double> chooseNormals(const CircleSolution& left, const CircleSolution& right, Candidate& candidate) {
    candidate.combination = 0;
    candidate.agreement = std::abs(right.normals[0].dot(left.normals[0]));
    for (int combination = 1; combination < 4; ++combination) {
        const double agreement = std::abs(right.normals[static_cast<std::size_t>(combination & 1)].dot(
            left.normals[static_cast<std::size_t>(combination >> 1)]));
        if (agreement > candidate.agreement) {
            candidate.agreement = agreement;
            candidate.combination = combination;
        }
    }
    const cv::Point3d sum = left.normals[candidate.leftNormal()] + right.normals[candidate.rightNormal()];
    const double length = cv::norm(sum);
    if (length == 0) return {0, 0, 0};
    return {sum.x / length, sum.y / length, sum.z / length};
}

/// Relative deviations of both radii from the last nominal radius that both fit; none if there is no such radius.
bool fitNominalRadius(const Candidate& c, const CicrleConfigs& configs, double& leftDeviation, double& rightDeviation) {
    leftDeviation = rightDeviation = 0;
    bool passed = configs.markerRadii.empty();
    const double t = configs.sizeTolerance;
    for (const double nominal : configs.markerRadii) {
        const double least = nominal * (1 - t);
        const double largest = nominal * (1 + t);
        if (!(c.leftRadius > least && c.leftRadius < largest && c.rightRadius > least && c.rightRadius < largest))
            continue;
        passed = true;
        leftDeviation = std::abs(c.leftRadius / nominal - 1);
        rightDeviation = std::abs(c.rightRadius / nominal - 1);
    }
    return passed;
}

double scoreOf(const Candidate& c, const cv::Mat& epipolar, double leftDeviation, double rightDeviation) {
    const double s = std::sqrt(0.5 * (leftDeviation * leftDeviation + rightDeviation * rightDeviation));
    const double radiusFactor = std::exp(-0.5 * (s * s));
    // The distance comes squared already, so that its square here is a fourth power of pixels: a wrong row ends a
    // candidate.
    const double e = sampsonDistance(epipolar, c.leftCentres[c.leftNormal()], c.rightCentres[c.rightNormal()]);
    const double epipolarFactor = std::exp(-0.125 * (e * e));
    return std::exp(kRatioWeight * std::log(c.ratio) + kNormalWeight * std::log(c.agreement) +
                    kEpipolarWeight * std::log(epipolarFactor) + kRadiusWeight * std::log(radiusFactor));
}

/// Best candidate of each corner so far.
class Competition {
  public:
    Competition(std::size_t leftCount, std::size_t rightCount)
        : left_(leftCount), right_(rightCount), leftCentres_(leftCount), rightCentres_(rightCount) {}

    /// A better candidate frees the partners of both corners, so that a later one can claim them. An exact tie takes
    /// the record without that, and keeps the centres that are there.
    void offer(int index, std::pair<int, int> pair, double score, const Candidate& candidate) {
        const auto i = static_cast<std::size_t>(pair.first);
        const auto j = static_cast<std::size_t>(pair.second);
        if (left_[i].score > score || right_[j].score > score) return;
        if (score > left_[i].score) {
            if (left_[i].partner != kNobody) right_[static_cast<std::size_t>(left_[i].partner)] = {};
            left_[i] = {};
            leftCentres_[i] = candidate.leftCentres;
        }
        if (score > right_[j].score) {
            if (right_[j].partner != kNobody) left_[static_cast<std::size_t>(right_[j].partner)] = {};
            right_[j] = {};
            rightCentres_[j] = candidate.rightCentres;
        }
        left_[i] = {pair.second, score, index};
        right_[j] = {pair.first, score, index};
    }

    /// Whether this candidate is the best of both its corners; if so, its two centres. A candidate that took its record
    /// by a tie at score 0, before any other had left centres, is no match.
    bool isMutualBest(std::pair<int, int> pair, int combination, cv::Point2f& left, cv::Point2f& right) const {
        const auto i = static_cast<std::size_t>(pair.first);
        const auto j = static_cast<std::size_t>(pair.second);
        if (left_[i].partner == kNobody || right_[j].partner == kNobody || left_[i].candidate != right_[j].candidate ||
            leftCentres_[i].empty() || rightCentres_[j].empty()) {
            return false;
        }
        left = leftCentres_[i][static_cast<std::size_t>(combination >> 1)];
        right = rightCentres_[j][static_cast<std::size_t>(combination & 1)];
        return true;
    }

  private:
    struct BestMatch {
        int partner = kNobody;
        double score = 0.0;
        int candidate = kNobody;
    };
    std::vector<BestMatch> left_, right_;
    std::vector<std::vector<cv::Point2f>> leftCentres_, rightCentres_;
};

Point3_<double> triangulate(const StereoFrame& frame, cv::Point2f left, cv::Point2f right) {
    cv::Mat x;  // 4 by 1 in single precision, as the points are
    cv::triangulatePoints(frame.leftProjection, frame.rightProjection, std::vector<cv::Point2f>{left},
                          std::vector<cv::Point2f>{right}, x);
    const float w = x.at<float>(3);
    return {x.at<float>(0) / w, x.at<float>(1) / w, x.at<float>(2) / w};
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

void matchConicCorners(std::vector<Corner>& leftCorners, std::vector<Corner>& rightCorners,
                       std::vector<std::pair<int, int>>& pairs, std::vector<Point3_<double>>& points,
                       std::vector<Point3_<double>>& normals, std::vector<double>& radii,
                       CircleMarkerExtractor& extractor, const CicrleConfigs& configs) {
    requireConicCalibration(extractor, configs.cornersRectified);
    pairs.clear();
    points.clear();
    normals.clear();
    radii.clear();
    if (leftCorners.empty() || rightCorners.empty()) return;

    const std::vector<cv::Point2f> leftPoints = centresOf(leftCorners);
    const std::vector<cv::Point2f> rightPoints = centresOf(rightCorners);
    const StereoFrame frame = configs.cornersRectified ? rectifiedFrame(extractor, leftPoints, rightPoints)
                                                       : cameraFrame(extractor, leftPoints, rightPoints);
    extractor.SetTriangulationIntrinsicMatrix(
        configs.cornersRectified ? extractor.leftProjection : extractor.leftIntrinsic,
        configs.cornersRectified ? extractor.rightProjection : extractor.rightIntrinsic);
    pairs = rectifiedCandidatePairs(frame.leftRectified, frame.rightRectified, extractor.disparityToDepth, points,
                                    configs.maxRowDifference, configs.minDepth, configs.maxDepth);
    if (pairs.empty()) return;

    const cv::Mat normalRotation = frame.pose(kFirstThreeColumns).inv();
    cv::transform(asMat(points), asMat(points), frame.frameRotation.inv());
    std::vector<Point3_<double>> pointsInRight(points.size());
    cv::transform(asMat(points), asMat(pointsInRight), frame.pose);
    normals.resize(pairs.size(), {0, 0, 0});
    radii.resize(pairs.size(), 0);

    Competition competition(leftCorners.size(), rightCorners.size());
    std::vector<int> combinations(pairs.size(), kNobody);
    const Eigen::Matrix3d leftCamera = extractor.triangulationA;
    const Eigen::Matrix3d rightCamera = extractor.triangulationB;
    for (std::size_t k = 0; k < pairs.size(); ++k) {
        Candidate c;
        const CircleSolution left = solveCirclePose(
            leftCamera, points[k], leftCorners[static_cast<std::size_t>(pairs[k].first)], c.leftCentres);
        CircleSolution right = solveCirclePose(rightCamera, pointsInRight[k],
                                               rightCorners[static_cast<std::size_t>(pairs[k].second)], c.rightCentres);
        if (left.normals.empty() || right.normals.empty()) continue;
        cv::transform(right.normals, right.normals, normalRotation);
        c.leftRadius = left.radius;
        c.rightRadius = right.radius;
        normals[k] = chooseNormals(left, right, c);
        combinations[k] = c.combination;
        radii[k] = (left.radius + right.radius) * 0.5;
        c.ratio = std::min(left.radius, right.radius) / std::max(left.radius, right.radius);

        double leftDeviation = 0, rightDeviation = 0;
        if (!fitNominalRadius(c, configs, leftDeviation, rightDeviation)) continue;
        if (static_cast<double>(configs.minRadiusRatio) > c.ratio) continue;
        competition.offer(static_cast<int>(k), pairs[k], scoreOf(c, frame.epipolar, leftDeviation, rightDeviation), c);
    }

    std::size_t kept = 0;
    for (std::size_t k = 0; k < pairs.size(); ++k) {
        cv::Point2f left, right;
        if (combinations[k] == kNobody || !competition.isMutualBest(pairs[k], combinations[k], left, right)) continue;
        Corner& leftCorner = leftCorners[static_cast<std::size_t>(pairs[k].first)];
        Corner& rightCorner = rightCorners[static_cast<std::size_t>(pairs[k].second)];
        leftCorner.x = left.x;
        leftCorner.y = left.y;
        rightCorner.x = right.x;
        rightCorner.y = right.y;
        pairs[kept] = pairs[k];
        points[kept] = triangulate(frame, left, right);
        normals[kept] = normals[k];
        radii[kept] = radii[k];
        ++kept;
    }
    pairs.resize(kept);
    points.resize(kept);
    normals.resize(kept, {0, 0, 0});
    radii.resize(kept);
}

}  // namespace kestrune
