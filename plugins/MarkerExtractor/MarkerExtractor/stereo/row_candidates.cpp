// SPDX-License-Identifier: Apache-2.0
#include "MarkerExtractor/stereo/row_candidates.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <span>

#include "MarkerExtractor/camera/calibration_check.h"
#include "MarkerExtractor/stereo/space_points.h"

namespace kestrune {

namespace {

constexpr double kLeastDisparityWeight = 1e-6;  ///< below it the two rays are parallel

/// The points of a list by row, without those whose row is NaN: they lie in no band.
class RowOrder {
  public:
    explicit RowOrder(const std::vector<cv::Point2f>& points) : points_(points) {
        order_.reserve(points.size());
        for (std::size_t j = 0; j < points.size(); ++j) {
            if (!std::isnan(points[j].y)) order_.push_back(static_cast<int>(j));
        }
        std::ranges::stable_sort(order_, {}, [this](int j) { return rowOf(j); });
    }

    /// Indices of the points whose row differs by no more than `band`. The bounds are narrowed before they are
    /// compared.
    std::span<const int> near(float row, double band) const {
        const auto lowest = static_cast<float>(static_cast<double>(row) - band);
        const auto highest = static_cast<float>(static_cast<double>(row) + band);
        const auto first = std::partition_point(order_.begin(), order_.end(), [&](int j) { return rowOf(j) < lowest; });
        const auto last = std::partition_point(first, order_.end(), [&](int j) { return !(rowOf(j) > highest); });
        return {first, last};
    }

  private:
    float rowOf(int j) const { return points_[static_cast<std::size_t>(j)].y; }

    const std::vector<cv::Point2f>& points_;
    std::vector<int> order_;
};

}  // namespace

DisparityMap::DisparityMap(const cv::Mat& q) {
    const auto at = [&q](int row, int column) {
        return q.depth() == CV_64F ? static_cast<float>(q.at<double>(row, column)) : q.at<float>(row, column);
    };
    q03_ = at(0, 3);
    q13_ = at(1, 3);
    q23_ = at(2, 3);
    q32_ = at(3, 2);
    q33_ = at(3, 3);
}

std::optional<cv::Vec3d> DisparityMap::pointAt(const cv::Point2f& left, const cv::Point2f& right) const {
    const float disparity = left.x - right.x;
    const double w = disparity * q32_ + q33_;  // in single precision, then widened
    if (std::abs(w) < kLeastDisparityWeight) return std::nullopt;
    return cv::Vec3d((left.x + q03_) / w, (left.y + q13_) / w, q23_ / w);
}

std::vector<RowCandidate> candidatesInRows(const std::vector<cv::Point2f>& left, const std::vector<cv::Point2f>& right,
                                           const DisparityMap& map, const PlaceBounds& bounds, PairVerdicts* verdicts) {
    std::vector<RowCandidate> candidates;
    candidates.reserve(2 * std::min(left.size(), right.size()));
    const RowOrder rows(right);
    for (std::size_t k = 0; k < left.size(); ++k) {
        const int i = static_cast<int>(k);
        for (const int j : rows.near(left[k].y, bounds.maxRowDifference)) {
            const std::optional<cv::Vec3d> point = map.pointAt(left[k], right[static_cast<std::size_t>(j)]);
            const double depth = point ? (*point)[2] : std::numeric_limits<double>::infinity();
            const bool isInRange = point && depth > bounds.minDepth && depth < bounds.maxDepth;
            if (verdicts != nullptr) {
                const PairGate gate = isInRange ? PairGate::none : PairGate::depth;
                verdicts->push_back({i, j, gate, depth, bounds.minDepth, bounds.maxDepth});
            }
            if (isInRange) candidates.push_back({i, j, *point});
        }
    }
    return candidates;
}

std::vector<std::pair<int, int>> rectifiedCandidatePairs(const std::vector<cv::Point2f>& left,
                                                         const std::vector<cv::Point2f>& right,
                                                         const cv::Mat& disparityToDepth,
                                                         std::vector<Point3_<double>>& points, double maxRowDifference,
                                                         double minDepth, double maxDepth) {
    requireMatrixOfEitherPrecision(disparityToDepth, 4, 4, "disparityToDepth");
    const std::vector<RowCandidate> candidates =
        candidatesInRows(left, right, DisparityMap(disparityToDepth), {maxRowDifference, minDepth, maxDepth}, nullptr);
    std::vector<std::pair<int, int>> pairs;
    pairs.reserve(candidates.size());
    points.clear();
    for (const RowCandidate& c : candidates) {
        pairs.emplace_back(c.left, c.right);
        points.push_back(recordOf(c.point));
    }
    points.shrink_to_fit();
    return pairs;
}

}  // namespace kestrune
