// SPDX-License-Identifier: Apache-2.0
#include <Eigen/Eigenvalues>
#include <Eigen/LU>
#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
#include <stdexcept>

#include "MarkerExtractor/camera/calibration_check.h"
#include "MarkerExtractor/stereo/conic_match.h"

namespace kestrune {

namespace {

constexpr const char* kNoDecomposition = "Eigen decomposition failed.";
constexpr double kLeastDisparityWeight = 1e-6;  ///< below it the two rays are parallel

Eigen::Matrix3d conicMatrix(const Corner& corner) {
    const auto& [A, B, C, D, E, F] = corner.conic;
    Eigen::Matrix3d matrix;
    matrix << A, B / 2, D / 2, B / 2, C, E / 2, D / 2, E / 2, F;
    return matrix;
}

/// Eigenvalues in ascending order with their unit eigenvectors.
struct EigenSystem {
    std::array<double, 3> value;
    std::array<Eigen::Vector3d, 3> vector;
};

EigenSystem decompose(const Eigen::Matrix3d& matrix) {
    const Eigen::SelfAdjointEigenSolver<Eigen::Matrix3d> solver(matrix, Eigen::ComputeEigenvectors);
    if (solver.info() != Eigen::Success) throw std::runtime_error(kNoDecomposition);
    std::array<int, 3> order{0, 1, 2};
    std::stable_sort(order.begin(), order.end(),
                     [&solver](int a, int b) { return solver.eigenvalues()[a] < solver.eigenvalues()[b]; });
    EigenSystem result;
    for (std::size_t k = 0; k < 3; ++k) {
        result.value[k] = solver.eigenvalues()[order[k]];
        result.vector[k] = solver.eigenvectors().col(order[k]);
    }
    return result;
}

/// Unit normal that looks back to the camera.
Eigen::Vector3d facingNormal(const Eigen::Vector3d& inPlane, const Eigen::Vector3d& axis,
                             const Eigen::Vector3d& point) {
    Eigen::Vector3d normal = inPlane.cross(axis);
    if (normal.squaredNorm() > 0) normal /= normal.norm();
    if (normal.dot(point) > 0) normal = -normal;
    return normal;
}

/// The five entries of Q that turn a disparity into a point, in single precision whatever the matrix holds.
struct DisparityMap {
    explicit DisparityMap(const cv::Mat& q) {
        const auto at = [&q](int row, int column) {
            return q.depth() == CV_64F ? static_cast<float>(q.at<double>(row, column)) : q.at<float>(row, column);
        };
        q03 = at(0, 3);
        q13 = at(1, 3);
        q23 = at(2, 3);
        q32 = at(3, 2);
        q33 = at(3, 3);
    }
    float q03, q13, q23, q32, q33;
};

/// Indices by row, without those whose row is not a number: they lie in no band.
std::vector<int> indicesByRow(const std::vector<cv::Point2f>& points) {
    std::vector<int> order;
    order.reserve(points.size());
    for (std::size_t j = 0; j < points.size(); ++j) {
        if (!std::isnan(points[j].y)) order.push_back(static_cast<int>(j));
    }
    std::stable_sort(order.begin(), order.end(), [&points](int a, int b) {
        return points[static_cast<std::size_t>(a)].y < points[static_cast<std::size_t>(b)].y;
    });
    return order;
}

}  // namespace

CircleSolution solveCirclePose(const Eigen::Matrix3d& camera, const Point3_<double>& point, const Corner& corner,
                               std::vector<cv::Point2f>& centres) {
    centres.clear();
    const Eigen::Matrix3d conic = conicMatrix(corner);
    const Eigen::Matrix3d half = camera.transpose() * conic;
    const Eigen::Matrix3d whole = half * camera;
    if (!whole.allFinite()) throw std::runtime_error(kNoDecomposition);
    // A point, a line twice, two lines, or nothing at all is no marker, and no reason to give up the others. Rounding
    // may hide it from one determinant, and the inverse has one of its own.
    const bool isDegenerate = conic.determinant() == 0 || half.determinant() == 0 || whole.determinant() == 0;
    const Eigen::Matrix3d cone = whole.inverse();
    if (isDegenerate || !cone.allFinite()) return {std::numeric_limits<double>::quiet_NaN(), {}};
    const EigenSystem system = decompose(cone);
    const auto& [e0, e1, e2] = system.value;
    const auto& [u0, u1, u2] = system.vector;

    const Eigen::Vector3d p(point.x, point.y, point.z);
    CircleSolution solution;
    solution.radius = std::sqrt(e2) * p.norm() / std::sqrt(-e0);
    const double s = std::sqrt((e2 - e1) / e1);
    const Eigen::Matrix3d toCentre = half.inverse();
    for (const double side : {s, -s}) {
        const Eigen::Vector3d normal = facingNormal(u1 + side * u0, u2, p);
        const Eigen::Vector3d h = toCentre * normal;
        solution.normals.emplace_back(normal.x(), normal.y(), normal.z());
        centres.emplace_back(static_cast<float>(h.x() / h.z()), static_cast<float>(h.y() / h.z()));
    }
    return solution;
}

double sampsonDistance(const cv::Mat& fundamental, const cv::Point2f& left, const cv::Point2f& right) {
    const cv::Mat x = (cv::Mat_<double>(3, 1) << left.x, left.y, 1.0);
    const cv::Mat xr = (cv::Mat_<double>(3, 1) << right.x, right.y, 1.0);
    const cv::Mat line = fundamental * x;
    const cv::Mat back = fundamental.t() * xr;
    const double l0 = line.at<double>(0), l1 = line.at<double>(1);
    const double b0 = back.at<double>(0), b1 = back.at<double>(1);
    const double constraint = xr.dot(line);
    return constraint * constraint / (l0 * l0 + l1 * l1 + b0 * b0 + b1 * b1);
}

std::vector<std::pair<int, int>> rectifiedCandidatePairs(const std::vector<cv::Point2f>& left,
                                                         const std::vector<cv::Point2f>& right,
                                                         const cv::Mat& disparityToDepth,
                                                         std::vector<Point3_<double>>& points, double maxRowDifference,
                                                         double minDepth, double maxDepth) {
    return rectifiedCandidatePairs(left, right, disparityToDepth, points, maxRowDifference, minDepth, maxDepth,
                                   nullptr);
}

std::vector<std::pair<int, int>> rectifiedCandidatePairs(const std::vector<cv::Point2f>& left,
                                                         const std::vector<cv::Point2f>& right,
                                                         const cv::Mat& disparityToDepth,
                                                         std::vector<Point3_<double>>& points, double maxRowDifference,
                                                         double minDepth, double maxDepth, PairVerdicts* verdicts) {
    requireMatrixOfEitherPrecision(disparityToDepth, 4, 4, "disparityToDepth");
    const DisparityMap map(disparityToDepth);
    points.clear();
    std::vector<std::pair<int, int>> pairs;
    const std::size_t room = 2 * std::min(left.size(), right.size());
    pairs.reserve(room);
    points.reserve(room);

    const std::vector<int> order = indicesByRow(right);
    const auto rowOf = [&right](int index) { return right[static_cast<std::size_t>(index)].y; };
    for (std::size_t i = 0; i < left.size(); ++i) {
        const auto [x, y] = left[i];
        const auto lowest = static_cast<float>(static_cast<double>(y) - maxRowDifference);
        const auto highest = static_cast<float>(static_cast<double>(y) + maxRowDifference);
        const auto first = std::partition_point(order.begin(), order.end(), [&](int j) { return rowOf(j) < lowest; });
        const auto last = std::partition_point(first, order.end(), [&](int j) { return !(rowOf(j) > highest); });
        for (auto j = first; j != last; ++j) {
            const float disparity = x - right[static_cast<std::size_t>(*j)].x;
            const double w = disparity * map.q32 + map.q33;  // in single precision, then widened
            const bool parallel = std::abs(w) < kLeastDisparityWeight;
            const double depth = parallel ? std::numeric_limits<double>::infinity() : map.q23 / w;
            const bool inRange = !parallel && depth > minDepth && depth < maxDepth;
            if (verdicts != nullptr)
                verdicts->push_back(
                    {static_cast<int>(i), *j, inRange ? PairGate::none : PairGate::depth, depth, minDepth, maxDepth});
            if (!inRange) continue;
            points.push_back({(x + map.q03) / w, (y + map.q13) / w, depth});
            pairs.emplace_back(static_cast<int>(i), *j);
        }
    }
    pairs.shrink_to_fit();
    points.shrink_to_fit();
    return pairs;
}

}  // namespace kestrune
