// SPDX-License-Identifier: Apache-2.0
#include "MarkerExtractor/stereo/rectified_match.h"

#include <algorithm>
#include <cstdint>
#include <optional>

#include "MarkerExtractor/camera/calibration_check.h"
#include "MarkerExtractor/stereo/constellation.h"
#include "MarkerExtractor/stereo/fallback.h"
#include "MarkerExtractor/stereo/rectified_verdicts.h"
#include "MarkerExtractor/stereo/space_points.h"
#include "logging/report_sites.h"
#include "parallel/parallel_loop.h"

namespace kestrune {

namespace {

// Bounds of the time that a point of a contour takes to sort, and a pair to test with all its triangulations, ns.
constexpr std::int64_t kPointTime = 500, kPairTime = 20'000;

using Markers = std::vector<RectifiedMarker>;

std::size_t longestContour(const std::vector<Corner>& corners) {
    std::size_t longest = 0;
    for (const Corner& corner : corners) longest = std::max(longest, corner.contour.size());
    return longest;
}

Markers markersOf(const std::vector<Corner>& corners) {
    Markers markers(corners.size());
    const auto markerTime = kPointTime * static_cast<std::int64_t>(longestContour(corners) + 1);
    forEachInParallel(static_cast<int>(corners.size()), markerTime, [&](int i) {
        const Corner& corner = corners[static_cast<std::size_t>(i)];
        markers[static_cast<std::size_t>(i)] = {{corner.x, corner.y}, corner.area, samplePoints(corner), {}};
    });
    return markers;
}

/// Tests one left marker against all right ones, and gives it its candidates.
void findCandidates(int i, RectifiedMarker& left, const Markers& rightMarkers, const PairGates& gates,
                    PairVerdicts* verdicts) {
    if (!left.samples) return;
    for (std::size_t k = 0; k < rightMarkers.size(); ++k) {
        const RectifiedMarker& right = rightMarkers[k];
        if (!right.samples) continue;
        const int j = static_cast<int>(k);
        std::optional<PairCandidate> candidate = gates.candidateOf(left, right);
        if (verdicts != nullptr) {
            PairVerdict verdict = candidate ? PairVerdict{i, j, PairGate::none} : gates.refusal(left, right);
            verdict.left = i;
            verdict.right = j;
            if (verdict.gate != PairGate::rows) verdicts->push_back(verdict);
        }
        if (!candidate) continue;
        candidate->partner = j;
        left.candidates.push_back(*candidate);
    }
}

/// Tests all pairs. The threads fill the lists of the left markers, each its own; those of the right ones are filled
/// from these afterwards, in the order of the left ones and not in that of the threads.
void findCandidates(Markers& leftMarkers, Markers& rightMarkers, const PairGates& gates, PairVerdicts* verdicts) {
    std::vector<PairVerdicts> verdictsOf(verdicts != nullptr ? leftMarkers.size() : 0);
    const auto pairTime = kPairTime * static_cast<std::int64_t>(rightMarkers.size());
    forEachInParallel(static_cast<int>(leftMarkers.size()), pairTime, [&](int i) {
        const auto k = static_cast<std::size_t>(i);
        findCandidates(i, leftMarkers[k], rightMarkers, gates, verdicts != nullptr ? &verdictsOf[k] : nullptr);
    });
    for (std::size_t i = 0; i < leftMarkers.size(); ++i) {
        for (const PairCandidate& c : leftMarkers[i].candidates) {
            rightMarkers[static_cast<std::size_t>(c.partner)].candidates.push_back(
                {static_cast<int>(i), c.point, c.radius});
        }
    }
    for (const PairVerdicts& mine : verdictsOf) verdicts->insert(verdicts->end(), mine.begin(), mine.end());
}

std::vector<MarkerMatchRecord> recordsOf(const Markers& markers) {
    std::vector<MarkerMatchRecord> records;
    records.reserve(markers.size());
    for (const RectifiedMarker& marker : markers) {
        records.push_back({marker.centre.x, marker.centre.y, {}, {}, {}, {}, marker.area});
        for (const PairCandidate& candidate : marker.candidates) records.back().matches.push_back(candidate.partner);
    }
    return records;
}

/// The pairs that the constellation decides on; none without a consensus.
std::optional<std::vector<PlacedPair>> constellationPairs(const Markers& leftMarkers, const Markers& rightMarkers,
                                                          const EdgeTolerances& tolerances) {
    std::vector<std::pair<int, int>> found;
    if (!findConstellation(recordsOf(leftMarkers), recordsOf(rightMarkers), tolerances.length, tolerances.angle, found))
        return std::nullopt;
    std::vector<PlacedPair> pairs;
    for (const auto& [i, j] : found) {
        const RectifiedMarker& left = leftMarkers[static_cast<std::size_t>(i)];
        pairs.push_back({i, j, left.candidates[positionOf(left, j)].point});
    }
    return pairs;
}

}  // namespace

bool canMatchRectified(const std::vector<Corner>& leftCorners, const std::vector<Corner>& rightCorners,
                       const MatchSettings& settings) {
    if (leftCorners.empty() || rightCorners.empty()) {
        reportWarning(report_sites::kRectifiedListEmpty);
        return false;
    }
    if (std::ranges::any_of(settings.radii, [](double radius) { return radius > 0.0; })) return true;
    reportWarning(report_sites::kNoPositiveRadius);
    return false;
}

RectifiedRig rectifiedRigOf(const cv::Mat& rotation, const cv::Mat& leftProjection, const cv::Mat& rightProjection) {
    requireMatrix(rotation, 3, 3, "rotation");
    requireMatrixOfEitherPrecision(leftProjection, 3, 4, "leftProjection");
    requireMatrixOfEitherPrecision(rightProjection, 3, 4, "rightProjection");
    return {leftProjection, rightProjection, cv::Matx33d(rotation).inv()};
}

std::vector<PlacedPair> matchRectified(const std::vector<Corner>& leftCorners, const std::vector<Corner>& rightCorners,
                                       const RectifiedRig& rig, const RectifiedMatchSettings& settings,
                                       PairVerdicts* verdicts) {
    const PairGates gates(rig, settings);
    Markers left = markersOf(leftCorners), right = markersOf(rightCorners);
    findCandidates(left, right, gates, verdicts);

    auto pairs = constellationPairs(left, right, settings.edges);
    const bool hasConsensus = pairs.has_value();
    if (!hasConsensus) {
        trimCandidates(left, right, gates.size().radii(), settings.sizeTolerance);
        pairs = uniquePairs(left, right);
    }
    if (verdicts != nullptr) {
        explainResult({left, right, *pairs, hasConsensus}, settings.place.maxRowDifference, settings.edges, *verdicts);
    }
    return *pairs;
}

// NOLINTNEXTLINE(readability-function-size): a list that others compile against
std::vector<std::pair<int, int>> getStereoRectifiedMarker3dPoints(
    std::vector<Corner>& leftCorners, std::vector<Corner>& rightCorners, std::vector<double> markerRadii,
    std::vector<Point3_<double>>& points, cv::Mat& rotation, cv::Mat& leftProjection, cv::Mat& rightProjection,
    double maxRowDifference, double minDepth, double maxDepth, bool radiusScoreGate, bool looseSizeGate,
    double sizeTolerance, int deviationFactor, bool plainRowGate, double edgeLengthTolerance,
    double edgeAngleTolerance) {
    const ParallelCall call;
    const RectifiedMatchSettings settings{
        {{maxRowDifference, minDepth, maxDepth}, std::move(markerRadii), sizeTolerance},
        radiusScoreGate,
        looseSizeGate,
        plainRowGate,
        deviationFactor,
        {edgeLengthTolerance, edgeAngleTolerance}};
    if (!canMatchRectified(leftCorners, rightCorners, settings)) return {};
    const RectifiedRig rig = rectifiedRigOf(rotation, leftProjection, rightProjection);
    std::vector<std::pair<int, int>> pairs;
    for (const PlacedPair& pair : matchRectified(leftCorners, rightCorners, rig, settings, nullptr)) {
        pairs.emplace_back(pair.left, pair.right);
        points.push_back(recordOf(pair.point));
    }
    return pairs;
}

}  // namespace kestrune
