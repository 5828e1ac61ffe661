// SPDX-License-Identifier: Apache-2.0
#include "MarkerExtractor/stereo/conic_match.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
#include <opencv2/calib3d.hpp>

#include "MarkerExtractor/camera/calibration_check.h"
#include "checks/settings_check.h"

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

    /// An ellipse without a real point leaves no radius.
    bool isImaginary() const { return std::isnan(leftRadius) || std::isnan(rightRadius); }
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

/// The radius that keeps a candidate from the nominal one that it comes nearest to.
PairVerdict radiusVerdict(const Candidate& c, const CicrleConfigs& configs) {
    PairVerdict verdict{kNobody, kNobody, PairGate::radius};
    double nearest = std::numeric_limits<double>::infinity();
    for (const double nominal : configs.markerRadii) {
        const double left = std::abs(c.leftRadius / nominal - 1), right = std::abs(c.rightRadius / nominal - 1);
        if (!(std::max(left, right) < nearest)) continue;
        nearest = std::max(left, right);
        verdict.measured = left > right ? c.leftRadius : c.rightRadius;
        verdict.least = nominal * (1 - configs.sizeTolerance);
        verdict.largest = nominal * (1 + configs.sizeTolerance);
    }
    if (c.isImaginary()) return {kNobody, kNobody, PairGate::circle};
    return verdict;
}

/// Turns the verdicts of candidates, which are pairs until something speaks against them. Without a list it does
/// nothing.
class CandidateVerdicts {
  public:
    CandidateVerdicts(PairVerdicts* verdicts, const std::vector<std::pair<int, int>>& pairs)
        : verdicts_(verdicts), pairs_(pairs) {
        if (verdicts_ == nullptr) return;
        for (std::size_t v = 0; v < verdicts_->size(); ++v)
            if ((*verdicts_)[v].gate == PairGate::none) places_.push_back(v);
    }

    bool wanted() const { return verdicts_ != nullptr; }

    void turn(std::size_t k, const PairVerdict& verdict) {
        if (!wanted()) return;
        PairVerdict& mine = (*verdicts_)[places_[k]];
        mine = verdict;
        mine.left = pairs_[k].first;
        mine.right = pairs_[k].second;
    }

    /// What a candidate competes with.
    void setScore(std::size_t k, const Candidate& c, double score) {
        if (!wanted()) return;
        turn(k, c.isImaginary() ? PairVerdict{kNobody, kNobody, PairGate::circle}
                                : PairVerdict{kNobody, kNobody, PairGate::score, score});
    }

    /// Once all scores are set: gives each the score that it had to beat, and the pairs that stay their good name.
    void settle(const std::vector<std::size_t>& kept, std::size_t leftCount, std::size_t rightCount) {
        if (!wanted()) return;
        std::vector<double> left(leftCount, 0), right(rightCount, 0);
        for (const std::size_t place : places_) {
            const PairVerdict& v = (*verdicts_)[place];
            if (v.gate != PairGate::score) continue;
            for (double* best : {&left[static_cast<std::size_t>(v.left)], &right[static_cast<std::size_t>(v.right)]})
                *best = std::fmax(*best, v.measured);
        }
        for (const std::size_t place : places_) {
            PairVerdict& v = (*verdicts_)[place];
            if (v.gate == PairGate::score)
                v.least = std::max(left[static_cast<std::size_t>(v.left)], right[static_cast<std::size_t>(v.right)]);
        }
        for (const std::size_t k : kept) (*verdicts_)[places_[k]].gate = PairGate::none;
    }

  private:
    PairVerdicts* verdicts_;
    const std::vector<std::pair<int, int>>& pairs_;
    std::vector<std::size_t> places_;  ///< of the candidates among the verdicts
};

std::vector<double> rowsOf(const std::vector<cv::Point2f>& points) {
    std::vector<double> rows;
    for (const cv::Point2f& p : points) rows.push_back(p.y);
    return rows;
}

/// Candidates to results; the points stand in their new places already.
void keepOnly(const std::vector<std::size_t>& kept, ConicMatches& matches) {
    for (std::size_t n = 0; n < kept.size(); ++n) {
        matches.pairs[n] = matches.pairs[kept[n]];
        matches.normals[n] = matches.normals[kept[n]];
        matches.radii[n] = matches.radii[kept[n]];
    }
    matches.pairs.resize(kept.size());
    matches.points.resize(kept.size());
    matches.normals.resize(kept.size(), {0, 0, 0});
    matches.radii.resize(kept.size());
}

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
    ConicMatches found = pairConicCorners(leftCorners, rightCorners, extractor, configs, nullptr);
    pairs = std::move(found.pairs);
    points = std::move(found.points);
    normals = std::move(found.normals);
    radii = std::move(found.radii);
}

ConicMatches pairConicCorners(std::vector<Corner>& leftCorners, std::vector<Corner>& rightCorners,
                              CircleMarkerExtractor& extractor, const CicrleConfigs& configs, PairVerdicts* verdicts) {
    requireConicCalibration(extractor, configs.cornersRectified);
    if (leftCorners.empty() || rightCorners.empty()) return {};

    const std::vector<cv::Point2f> leftPoints = centresOf(leftCorners);
    const std::vector<cv::Point2f> rightPoints = centresOf(rightCorners);
    const StereoFrame frame = configs.cornersRectified ? rectifiedFrame(extractor, leftPoints, rightPoints)
                                                       : cameraFrame(extractor, leftPoints, rightPoints);
    extractor.SetTriangulationIntrinsicMatrix(
        configs.cornersRectified ? extractor.leftProjection : extractor.leftIntrinsic,
        configs.cornersRectified ? extractor.rightProjection : extractor.rightIntrinsic);
    ConicMatches found;
    auto& [pairs, points, normals, radii] = found;
    pairs = rectifiedCandidatePairs(frame.leftRectified, frame.rightRectified, extractor.disparityToDepth, points,
                                    configs.maxRowDifference, configs.minDepth, configs.maxDepth, verdicts);
    if (verdicts != nullptr)
        addNearestRows(rowsOf(frame.leftRectified), rowsOf(frame.rightRectified), configs.maxRowDifference, *verdicts);
    if (pairs.empty()) return found;

    const cv::Mat normalRotation = frame.pose(kFirstThreeColumns).inv();
    cv::transform(asMat(points), asMat(points), frame.frameRotation.inv());
    std::vector<Point3_<double>> pointsInRight(points.size());
    cv::transform(asMat(points), asMat(pointsInRight), frame.pose);
    normals.resize(pairs.size(), {0, 0, 0});
    radii.resize(pairs.size(), 0);

    Competition competition(leftCorners.size(), rightCorners.size());
    CandidateVerdicts candidateVerdicts(verdicts, pairs);
    std::vector<int> combinations(pairs.size(), kNobody);
    const Eigen::Matrix3d leftCamera = extractor.triangulationA;
    const Eigen::Matrix3d rightCamera = extractor.triangulationB;
    for (std::size_t k = 0; k < pairs.size(); ++k) {
        Candidate c;
        const CircleSolution left = solveCirclePose(
            leftCamera, points[k], leftCorners[static_cast<std::size_t>(pairs[k].first)], c.leftCentres);
        CircleSolution right = solveCirclePose(rightCamera, pointsInRight[k],
                                               rightCorners[static_cast<std::size_t>(pairs[k].second)], c.rightCentres);
        if (left.normals.empty() || right.normals.empty()) {
            candidateVerdicts.turn(k, {kNobody, kNobody, PairGate::circle});
            continue;
        }
        cv::transform(right.normals, right.normals, normalRotation);
        c.leftRadius = left.radius;
        c.rightRadius = right.radius;
        normals[k] = chooseNormals(left, right, c);
        combinations[k] = c.combination;
        radii[k] = (left.radius + right.radius) * 0.5;
        c.ratio = std::min(left.radius, right.radius) / std::max(left.radius, right.radius);

        double leftDeviation = 0, rightDeviation = 0;
        if (!fitNominalRadius(c, configs, leftDeviation, rightDeviation)) {
            if (candidateVerdicts.wanted()) candidateVerdicts.turn(k, radiusVerdict(c, configs));
            continue;
        }
        const auto leastRatio = static_cast<double>(configs.minRadiusRatio);
        if (leastRatio > c.ratio) {
            candidateVerdicts.turn(k, {kNobody, kNobody, PairGate::radiusRatio, c.ratio, leastRatio});
            continue;
        }
        const double score = scoreOf(c, frame.epipolar, leftDeviation, rightDeviation);
        competition.offer(static_cast<int>(k), pairs[k], score, c);
        candidateVerdicts.setScore(k, c, score);
    }

    std::vector<std::size_t> kept;
    for (std::size_t k = 0; k < pairs.size(); ++k) {
        cv::Point2f left, right;
        if (combinations[k] == kNobody || !competition.isMutualBest(pairs[k], combinations[k], left, right)) continue;
        Corner& leftCorner = leftCorners[static_cast<std::size_t>(pairs[k].first)];
        Corner& rightCorner = rightCorners[static_cast<std::size_t>(pairs[k].second)];
        leftCorner.x = left.x;
        leftCorner.y = left.y;
        rightCorner.x = right.x;
        rightCorner.y = right.y;
        points[kept.size()] = triangulate(frame, left, right);
        kept.push_back(k);
    }
    candidateVerdicts.settle(kept, leftCorners.size(), rightCorners.size());
    keepOnly(kept, found);
    return found;
}

}  // namespace kestrune
