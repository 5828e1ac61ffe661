// SPDX-License-Identifier: Apache-2.0
#include "MarkerExtractor/stereo/rectified_verdicts.h"

#include <algorithm>
#include <cmath>

#include "MarkerExtractor/stereo/nan_last.h"

namespace kestrune {

namespace {

/// Verdicts of the markers that have no pair in their row band. One whose neighbour in row is within the band, but was
/// not tested, has no pair for the neighbour's outline and not for its row.
void explainLoneMarkers(const RectifiedResult& result, double maxRowDifference, PairVerdicts& verdicts) {
    for (std::size_t i = 0; i < result.left.size(); ++i)
        if (!result.left[i].samples) verdicts.push_back({static_cast<int>(i), kNobody, PairGate::outline});
    for (std::size_t j = 0; j < result.right.size(); ++j)
        if (!result.right[j].samples) verdicts.push_back({kNobody, static_cast<int>(j), PairGate::outline});
    const std::size_t explained = verdicts.size();
    const auto rowOf = [](const RectifiedMarker& marker) { return marker.centre.y; };
    addNearestRows(result.left, result.right, rowOf, maxRowDifference, verdicts);
    for (std::size_t k = explained; k < verdicts.size(); ++k) {
        PairVerdict& verdict = verdicts[k];
        if (verdict.measured < maxRowDifference) verdict = {verdict.left, verdict.right, PairGate::outline};
    }
}

double median(std::vector<double> values) {
    const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
    std::ranges::nth_element(values, middle, AscendingNanLast());
    return *middle;
}

/// How a candidate lies among the pairs of the result: that of length and direction which is farther off, measured in
/// its tolerance.
PairVerdict edgeVerdict(cv::Point2d left, cv::Point2d right, const RectifiedResult& result,
                        const EdgeTolerances& tolerances) {
    std::vector<double> lengths, directions;
    for (const PlacedPair& pair : result.pairs) {
        const cv::Point2d a = result.left[static_cast<std::size_t>(pair.left)].centre - left;
        const cv::Point2d b = result.right[static_cast<std::size_t>(pair.right)].centre - right;
        lengths.push_back(std::abs(cv::norm(a) - cv::norm(b)) / std::max(cv::norm(a), cv::norm(b)));
        directions.push_back(std::abs(std::atan2(a.cross(b), a.dot(b))));
    }
    if (lengths.empty()) return {kNobody, kNobody, PairGate::edgeLength};
    const double length = median(std::move(lengths)), direction = median(std::move(directions));
    const double lengthBound = std::abs(tolerances.length), directionBound = tolerances.angle;
    if (length * directionBound > direction * lengthBound)
        return {kNobody, kNobody, PairGate::edgeLength, length, -kUnbounded, lengthBound};
    return {kNobody, kNobody, PairGate::edgeDirection, direction, -kUnbounded, directionBound};
}

/// What is known of the markers of one eye.
struct Places {
    explicit Places(std::size_t markers) : partners(markers, kNobody), candidates(markers) {}
    std::vector<int> partners;    ///< in the result
    std::vector<int> candidates;  ///< their number
};

void explainCandidates(const RectifiedResult& result, const EdgeTolerances& tolerances, PairVerdicts& verdicts) {
    Places left(result.left.size()), right(result.right.size());
    for (const PlacedPair& pair : result.pairs) {
        left.partners[static_cast<std::size_t>(pair.left)] = pair.right;
        right.partners[static_cast<std::size_t>(pair.right)] = pair.left;
    }
    for (const PairVerdict& v : verdicts) {
        if (v.gate != PairGate::none) continue;
        ++left.candidates[static_cast<std::size_t>(v.left)];
        ++right.candidates[static_cast<std::size_t>(v.right)];
    }
    for (PairVerdict& v : verdicts) {
        const auto i = static_cast<std::size_t>(v.left), j = static_cast<std::size_t>(v.right);
        if (v.gate != PairGate::none || left.partners[i] == v.right || right.partners[j] == v.left) continue;
        const int most = std::max(left.candidates[i], right.candidates[j]);
        PairVerdict verdict{kNobody, kNobody, PairGate::ambiguous, static_cast<double>(most), -kUnbounded, 1};
        if (left.partners[i] != kNobody || right.partners[j] != kNobody) {
            verdict = {kNobody, kNobody, PairGate::taken};
        } else if (result.hasConsensus) {
            verdict = edgeVerdict(result.left[i].centre, result.right[j].centre, result, tolerances);
        }
        verdict.left = v.left;
        verdict.right = v.right;
        v = verdict;
    }
}

}  // namespace

void explainResult(const RectifiedResult& result, double maxRowDifference, const EdgeTolerances& tolerances,
                   PairVerdicts& verdicts) {
    explainLoneMarkers(result, maxRowDifference, verdicts);
    explainCandidates(result, tolerances, verdicts);
}

}  // namespace kestrune
