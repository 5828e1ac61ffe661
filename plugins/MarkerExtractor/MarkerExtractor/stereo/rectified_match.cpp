// SPDX-License-Identifier: Apache-2.0
#include "MarkerExtractor/stereo/rectified_match.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "MarkerExtractor/camera/calibration_check.h"
#include "kestrune/MarkerExtractor/stereo.h"
#include "logging/report_sites.h"
#include "parallel/parallel_loop.h"

namespace kestrune {

namespace {

// Bounds of the time that a point of a contour takes to sort, and a pair to test with all its triangulations, ns.
constexpr std::int64_t kPointTime = 500, kPairTime = 20'000;

std::size_t longestContour(const std::vector<Corner>& corners) {
    std::size_t longest = 0;
    for (const Corner& corner : corners) longest = std::max(longest, corner.contour.size());
    return longest;
}

MarkerMatchRecord prepareRecord(const Corner& corner) {
    return {corner.x, corner.y, {}, samplePoints(corner), {}, {}, corner.area};
}

void addCandidate(MarkerMatchRecord& record, int partner, const PairCandidate& candidate) {
    record.matches.push_back(partner);
    record.candidates3d.push_back(candidate.point);
    record.candidateRadii.push_back(candidate.radius);
}

constexpr double kInfinity = std::numeric_limits<double>::infinity();

/// What candidates are judged by once the pairs are known.
struct ConstellationJudge {
    const std::vector<MarkerMatchRecord>&left, &right;
    const std::vector<std::pair<int, int>>& pairs;
    double edgeLengthTolerance, edgeAngleTolerance;
};

std::vector<double> rowsOf(const std::vector<MarkerMatchRecord>& records) {
    std::vector<double> rows;
    for (const MarkerMatchRecord& record : records) rows.push_back(record.y);
    return rows;
}

/// What the threads found out about one left record.
struct Found {
    std::vector<PairCandidate> candidates;
    PairVerdicts verdicts;  ///< of the pairs in its row band, where they are wanted
};

/// Tests all pairs. The threads fill one list for each left record; the records are filled from these afterwards, so
/// that the candidates of the right ones stand in the order of the left ones and not in that of the threads.
void findCandidates(std::vector<MarkerMatchRecord>& leftRecords, std::vector<MarkerMatchRecord>& rightRecords,
                    const PairTest& test, PairVerdicts* verdicts) {
    std::vector<Found> found(leftRecords.size());
    const auto pairTime = kPairTime * static_cast<std::int64_t>(rightRecords.size());
    forEachInParallel(static_cast<int>(leftRecords.size()), pairTime, [&](int i) {
        const MarkerMatchRecord& left = leftRecords[static_cast<std::size_t>(i)];
        Found& mine = found[static_cast<std::size_t>(i)];
        if (left.samples.empty()) return;
        for (std::size_t j = 0; j < rightRecords.size(); ++j) {
            if (rightRecords[j].samples.empty()) continue;
            PairVerdict verdict{};
            std::optional<PairCandidate> candidate =
                testCandidatePair(left, rightRecords[j], test, verdicts != nullptr ? &verdict : nullptr);
            if (verdicts != nullptr && verdict.gate != PairGate::rows) {
                verdict.left = i;
                verdict.right = static_cast<int>(j);
                mine.verdicts.push_back(verdict);
            }
            if (!candidate) continue;
            candidate->right = static_cast<int>(j);
            mine.candidates.push_back(*candidate);
        }
    });
    for (std::size_t i = 0; i < found.size(); ++i) {
        for (const PairCandidate& candidate : found[i].candidates) {
            addCandidate(leftRecords[i], candidate.right, candidate);
            addCandidate(rightRecords[static_cast<std::size_t>(candidate.right)], static_cast<int>(i), candidate);
        }
        if (verdicts != nullptr) verdicts->insert(verdicts->end(), found[i].verdicts.begin(), found[i].verdicts.end());
    }
}

/// Verdicts of the markers that have no pair in their row band. One whose neighbour in row is within the band, but was
/// not tested, has no pair for the neighbour's outline and not for its row.
void judgeOutlinesAndRows(const std::vector<MarkerMatchRecord>& leftRecords,
                          const std::vector<MarkerMatchRecord>& rightRecords, double maxRowDifference,
                          PairVerdicts& verdicts) {
    for (std::size_t i = 0; i < leftRecords.size(); ++i)
        if (leftRecords[i].samples.empty()) verdicts.push_back({static_cast<int>(i), -1, PairGate::outline});
    for (std::size_t j = 0; j < rightRecords.size(); ++j)
        if (rightRecords[j].samples.empty()) verdicts.push_back({-1, static_cast<int>(j), PairGate::outline});
    const std::size_t judged = verdicts.size();
    addNearestRows(rowsOf(leftRecords), rowsOf(rightRecords), maxRowDifference, verdicts);
    for (std::size_t k = judged; k < verdicts.size(); ++k)
        if (verdicts[k].measured < maxRowDifference)
            verdicts[k] = {verdicts[k].left, verdicts[k].right, PairGate::outline};
}

double median(std::vector<double> values) {
    const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
    std::nth_element(values.begin(), middle, values.end(), ascendingNanLast<double>);
    return *middle;
}

/// How a candidate lies among the pairs of the result: that of length and direction which is farther off, measured in
/// its tolerance.
PairVerdict judgeEdges(const MarkerMatchRecord& left, const MarkerMatchRecord& right, const ConstellationJudge& judge) {
    std::vector<double> lengths, directions;
    for (const auto& [i, j] : judge.pairs) {
        const MarkerMatchRecord &l = judge.left[static_cast<std::size_t>(i)],
                                &r = judge.right[static_cast<std::size_t>(j)];
        const cv::Point2d a(l.x - left.x, l.y - left.y), b(r.x - right.x, r.y - right.y);
        lengths.push_back(std::abs(cv::norm(a) - cv::norm(b)) / std::max(cv::norm(a), cv::norm(b)));
        directions.push_back(std::abs(std::atan2(a.cross(b), a.dot(b))));
    }
    if (lengths.empty()) return {-1, -1, PairGate::edgeLength};
    const double length = median(std::move(lengths)), direction = median(std::move(directions));
    const double lengthBound = std::abs(judge.edgeLengthTolerance), directionBound = judge.edgeAngleTolerance;
    if (length * directionBound > direction * lengthBound)
        return {-1, -1, PairGate::edgeLength, length, -kInfinity, lengthBound};
    return {-1, -1, PairGate::edgeDirection, direction, -kInfinity, directionBound};
}

/// Turns the verdicts of the candidates that are no pairs of the result.
void judgeCandidates(const ConstellationJudge& judge, bool consensus, PairVerdicts& verdicts) {
    std::vector<int> partnerOfLeft(judge.left.size(), -1), partnerOfRight(judge.right.size(), -1);
    for (const auto& [i, j] : judge.pairs) {
        partnerOfLeft[static_cast<std::size_t>(i)] = j;
        partnerOfRight[static_cast<std::size_t>(j)] = i;
    }
    std::vector<int> leftCandidates(judge.left.size()), rightCandidates(judge.right.size());
    for (const PairVerdict& v : verdicts) {
        if (v.gate != PairGate::none) continue;
        ++leftCandidates[static_cast<std::size_t>(v.left)];
        ++rightCandidates[static_cast<std::size_t>(v.right)];
    }
    for (PairVerdict& v : verdicts) {
        const auto i = static_cast<std::size_t>(v.left), j = static_cast<std::size_t>(v.right);
        if (v.gate != PairGate::none || partnerOfLeft[i] == v.right || partnerOfRight[j] == v.left) continue;
        const int most = std::max(leftCandidates[i], rightCandidates[j]);
        PairVerdict verdict{-1, -1, PairGate::ambiguous, static_cast<double>(most), -kInfinity, 1};
        if (partnerOfLeft[i] >= 0 || partnerOfRight[j] >= 0) {
            verdict = {-1, -1, PairGate::taken};
        } else if (consensus) {
            verdict = judgeEdges(judge.left[i], judge.right[j], judge);
        }
        verdict.left = v.left;
        verdict.right = v.right;
        v = verdict;
    }
}

}  // namespace

std::vector<std::pair<int, int>> getStereoRectifiedMarker3dPoints(
    std::vector<Corner>& leftCorners, std::vector<Corner>& rightCorners, std::vector<double> markerRadii,
    std::vector<Point3_<double>>& points, cv::Mat& rotation, cv::Mat& leftProjection, cv::Mat& rightProjection,
    double maxRowDifference, double minDepth, double maxDepth, bool radiusScoreGate, bool looseSizeGate,
    double sizeTolerance, int deviationFactor, bool plainRowGate, double edgeLengthTolerance,
    double edgeAngleTolerance) {
    PairTest test{.leftProjection = leftProjection,
                  .rightProjection = rightProjection,
                  .fromRectified = {},
                  .radii = std::move(markerRadii),
                  .maxRowDifference = maxRowDifference,
                  .minDepth = minDepth,
                  .maxDepth = maxDepth,
                  .radiusScoreGate = radiusScoreGate,
                  .looseSizeGate = looseSizeGate,
                  .plainRowGate = plainRowGate,
                  .sizeTolerance = sizeTolerance,
                  .deviationFactor = deviationFactor};
    return matchRectifiedCorners(leftCorners, rightCorners, std::move(test), rotation,
                                 {edgeLengthTolerance, edgeAngleTolerance}, points, nullptr);
}

std::vector<std::pair<int, int>> matchRectifiedCorners(const std::vector<Corner>& leftCorners,
                                                       const std::vector<Corner>& rightCorners, PairTest test,
                                                       const cv::Mat& rotation, EdgeTolerances tolerances,
                                                       std::vector<Point3_<double>>& points, PairVerdicts* verdicts) {
    if (leftCorners.empty() || rightCorners.empty()) {
        reportWarning(report_sites::kRectifiedListEmpty);
        return {};
    }
    std::stable_sort(test.radii.begin(), test.radii.end(), ascendingNanLast<double>);
    if (std::none_of(test.radii.begin(), test.radii.end(), [](double radius) { return radius > 0.0; })) {
        reportWarning(report_sites::kNoPositiveRadius);
        return {};
    }
    // Refused here, because OpenCV would raise its own exception from within the parallel loop, and only for a pair
    // that gets that far.
    requireMatrix(rotation, 3, 3, "rotation");
    requireMatrixOfEitherPrecision(test.leftProjection, 3, 4, "leftProjection");
    requireMatrixOfEitherPrecision(test.rightProjection, 3, 4, "rightProjection");

    const std::size_t leftCount = leftCorners.size();
    std::vector<MarkerMatchRecord> leftRecords(leftCount);
    std::vector<MarkerMatchRecord> rightRecords(rightCorners.size());
    const std::size_t longest = std::max(longestContour(leftCorners), longestContour(rightCorners));
    const auto recordTime = kPointTime * static_cast<std::int64_t>(longest + 1);
    forEachInParallel(static_cast<int>(leftCount + rightCorners.size()), recordTime, [&](int k) {
        const auto i = static_cast<std::size_t>(k);
        if (i < leftCount) {
            leftRecords[i] = prepareRecord(leftCorners[i]);
        } else {
            rightRecords[i - leftCount] = prepareRecord(rightCorners[i - leftCount]);
        }
    });
    const cv::Mat inverse = rotation.inv();
    test.fromRectified = cv::Matx33d(inverse);
    findCandidates(leftRecords, rightRecords, test, verdicts);
    if (verdicts != nullptr) judgeOutlinesAndRows(leftRecords, rightRecords, test.maxRowDifference, *verdicts);

    std::vector<std::pair<int, int>> pairs;
    const bool consensus = findConstellation(leftRecords, rightRecords, tolerances.length, tolerances.angle, pairs);
    if (consensus) {
        for (const auto& [left, right] : pairs) {
            const MarkerMatchRecord& record = leftRecords[static_cast<std::size_t>(left)];
            points.push_back(record.candidates3d[positionOf(record, right)]);
        }
    } else {
        trimCandidates(leftRecords, rightRecords, test.radii, test.sizeTolerance);
        pairs = uniquePairs(leftRecords, rightRecords, points);
    }
    if (verdicts != nullptr)
        judgeCandidates({leftRecords, rightRecords, pairs, tolerances.length, tolerances.angle}, consensus, *verdicts);
    return pairs;
}

}  // namespace kestrune
