// SPDX-License-Identifier: Apache-2.0
#include "MarkerExtractor/stereo/rectified_match.h"

#include <algorithm>

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

/// Tests all pairs. The threads fill one list for each left record; the records are filled from these afterwards, so
/// that the candidates of the right ones stand in the order of the left ones and not in that of the threads.
void findCandidates(std::vector<MarkerMatchRecord>& leftRecords, std::vector<MarkerMatchRecord>& rightRecords,
                    const PairTest& test) {
    std::vector<std::vector<PairCandidate>> found(leftRecords.size());
    const auto pairTime = kPairTime * static_cast<std::int64_t>(rightRecords.size());
    forEachInParallel(static_cast<int>(leftRecords.size()), pairTime, [&](int i) {
        const MarkerMatchRecord& left = leftRecords[static_cast<std::size_t>(i)];
        if (left.samples.empty()) return;
        for (std::size_t j = 0; j < rightRecords.size(); ++j) {
            if (rightRecords[j].samples.empty()) continue;
            std::optional<PairCandidate> candidate = testCandidatePair(left, rightRecords[j], test);
            if (!candidate) continue;
            candidate->right = static_cast<int>(j);
            found[static_cast<std::size_t>(i)].push_back(*candidate);
        }
    });
    for (std::size_t i = 0; i < found.size(); ++i) {
        for (const PairCandidate& candidate : found[i]) {
            addCandidate(leftRecords[i], candidate.right, candidate);
            addCandidate(rightRecords[static_cast<std::size_t>(candidate.right)], static_cast<int>(i), candidate);
        }
    }
}

}  // namespace

std::vector<std::pair<int, int>> getStereoRectifiedMarker3dPoints(
    std::vector<Corner>& leftCorners, std::vector<Corner>& rightCorners, std::vector<double> markerRadii,
    std::vector<Point3_<double>>& points, cv::Mat& rotation, cv::Mat& leftProjection, cv::Mat& rightProjection,
    double maxRowDifference, double minDepth, double maxDepth, bool radiusScoreGate, bool looseSizeGate,
    double sizeTolerance, int deviationFactor, bool plainRowGate, double edgeLengthTolerance,
    double edgeAngleTolerance) {
    if (leftCorners.empty() || rightCorners.empty()) {
        reportWarning(report_sites::kRectifiedListEmpty);
        return {};
    }
    std::stable_sort(markerRadii.begin(), markerRadii.end(), ascendingNanLast<double>);
    if (std::none_of(markerRadii.begin(), markerRadii.end(), [](double radius) { return radius > 0.0; })) {
        reportWarning(report_sites::kNoPositiveRadius);
        return {};
    }
    // Refused here, because OpenCV would raise its own exception from within the parallel loop, and only for a pair
    // that gets that far.
    requireMatrix(rotation, 3, 3, "rotation");
    requireMatrixOfEitherPrecision(leftProjection, 3, 4, "leftProjection");
    requireMatrixOfEitherPrecision(rightProjection, 3, 4, "rightProjection");

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
    const PairTest test = {.leftProjection = leftProjection,
                           .rightProjection = rightProjection,
                           .fromRectified = cv::Matx33d(inverse),
                           .radii = std::move(markerRadii),
                           .maxRowDifference = maxRowDifference,
                           .minDepth = minDepth,
                           .maxDepth = maxDepth,
                           .radiusScoreGate = radiusScoreGate,
                           .looseSizeGate = looseSizeGate,
                           .plainRowGate = plainRowGate,
                           .sizeTolerance = sizeTolerance,
                           .deviationFactor = deviationFactor};
    findCandidates(leftRecords, rightRecords, test);

    std::vector<std::pair<int, int>> pairs;
    if (findConstellation(leftRecords, rightRecords, edgeLengthTolerance, edgeAngleTolerance, pairs)) {
        for (const auto& [left, right] : pairs) {
            const MarkerMatchRecord& record = leftRecords[static_cast<std::size_t>(left)];
            points.push_back(record.candidates3d[positionOf(record, right)]);
        }
        return pairs;
    }
    trimCandidates(leftRecords, rightRecords, test.radii, sizeTolerance);
    return uniquePairs(leftRecords, rightRecords, points);
}

}  // namespace kestrune
