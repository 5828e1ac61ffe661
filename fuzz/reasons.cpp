// SPDX-License-Identifier: Apache-2.0
#include "reasons.h"

#include <algorithm>
#include <cmath>
#include <set>

namespace kestrune::fuzz {

namespace {

/// Whether bounds let a measured value pass; not where there is none, or neither bound.
bool areWithin(double measured, double least, double largest) {
    if (std::isinf(least) && std::isinf(largest)) return false;
    return least < measured && measured < largest;
}

/// Whether a pair is refused by what is measured alone, and not by what other pairs are.
bool isMeasured(const PairVerdict& v) {
    if (v.gate == PairGate::none || v.gate == PairGate::edgeLength || v.gate == PairGate::edgeDirection) return false;
    // Infinite areas and those below 0, which no contour has, give other ratios.
    return v.gate != PairGate::area || (v.measured > 0 && v.measured <= 1);
}

}  // namespace

void addReasons(Record& record, const PairVerdicts& verdicts) {
    record.reasons(verdicts.size());
    for (const PairVerdict& v : verdicts)
        record.reasons(v.left, v.right, v.gate, v.measured, v.least, v.largest, v.excess());
}

void addReasons(Record& record, const std::vector<ExplainedCandidate>& candidates) {
    record.reasons(candidates.size());
    for (const ExplainedCandidate& c : candidates) {
        record.reasons(c.contour.size(), c.measured, c.marker, c.ellipse.center.x, c.ellipse.center.y,
                       c.ellipse.size.width, c.ellipse.size.height, c.ellipse.angle);
        for (const cv::Point2f& p : c.contour) record.reasons(p.x, p.y);
        record.reasons(c.gate);
        record.reasons(c.wanted);
    }
}

void addReasons(Record& record, const Drops& drops) {
    record.reasons(drops.size());
    for (const Drop& d : drops)
        record.reasons(d.met, d.cause, d.measured, d.least, d.largest, d.box.x, d.box.y, d.box.width, d.box.height);
}

void checkVerdicts(const PairVerdicts& verdicts, const std::vector<std::pair<int, int>>& pairs,
                   std::pair<std::size_t, std::size_t> counts) {
    std::vector<bool> left(counts.first), right(counts.second);
    std::set<std::pair<int, int>> judged, good;
    for (const PairVerdict& v : verdicts) {
        require(v.left >= -1 && v.right >= -1 && v.left < static_cast<int>(left.size()) &&
                    v.right < static_cast<int>(right.size()),
                "a verdict's markers are places in the lists");
        require(v.left >= 0 || v.right >= 0, "a verdict is of a marker");
        require(judged.emplace(v.left, v.right).second, "no two verdicts of a pair");
        if (v.left >= 0) left[static_cast<std::size_t>(v.left)] = true;
        if (v.right >= 0) right[static_cast<std::size_t>(v.right)] = true;
        if (v.gate == PairGate::none) good.emplace(v.left, v.right);
        const bool isWithin = isMeasured(v) && areWithin(v.measured, v.least, v.largest);
        if (isWithin)
            std::fprintf(stderr, "%d and %d, gate %d: %g is within %g and %g\n", v.left, v.right,
                         static_cast<int>(v.gate), v.measured, v.least, v.largest);
        require(!isWithin, "what is refused is out of its bounds");
    }
    require(std::ranges::count(left, false) == 0 && std::ranges::count(right, false) == 0, "each marker has a verdict");
    require(good.size() == pairs.size() && good == std::set(pairs.begin(), pairs.end()),
            "the pairs are those that nothing ended");
}

void checkCandidates(const std::vector<ExplainedCandidate>& candidates, const std::vector<Corner>& markers) {
    std::vector<bool> explained(markers.size());
    for (const ExplainedCandidate& candidate : candidates) {
        require(!candidate.contour.empty(), "a candidate has a contour");
        const bool isMarker = candidate.gate.empty();
        require(isMarker == candidate.wanted.empty(), "a gate asks for something");
        require(candidate.marker >= (isMarker ? 0 : -1) && candidate.marker < static_cast<int>(markers.size()),
                "an explained marker is one of the list");
        if (!isMarker) continue;
        const auto place = static_cast<std::size_t>(candidate.marker);
        require(!explained[place], "a marker is one candidate");
        explained[place] = true;
        require(markers[place].x == candidate.ellipse.center.x && markers[place].y == candidate.ellipse.center.y,
                "an explained marker is where the path finds it");
    }
    require(std::ranges::count(explained, false) == 0, "every marker is explained");
}

void checkDrops(const Drops& drops, const CicrleConfigs& configs, const cv::Size& imageSize) {
    const cv::Rect2d image({}, cv::Size2d(imageSize));
    for (const Drop& drop : drops) {
        require(static_cast<bool>(drop), "a drop has a cause");
        // An ellipse through what is on the image may itself leave it.
        const bool isOnImage = (drop.box & image) == drop.box || drop.cause == DropCause::kGreyLevel;
        if (!isOnImage || !(drop.box.area() > 0))
            std::fprintf(stderr, "cause %d: %g x %g px at %g, %g\n", static_cast<int>(drop.cause), drop.box.width,
                         drop.box.height, drop.box.x, drop.box.y);
        require(isOnImage && drop.box.area() > 0, "what was dropped is on the image");
        const bool isWithin = areWithin(drop.measured, drop.least, drop.largest);
        if (isWithin)
            std::fprintf(stderr, "cause %d: %g is within %g and %g\n", static_cast<int>(drop.cause), drop.measured,
                         drop.least, drop.largest);
        require(!isWithin, "what was dropped is out of its bounds");
        const DropText text = describe(drop, configs);
        require(!text.name.empty() && !text.name.ends_with(' ') && !text.wanted.empty(), "a drop has a name");
    }
}

}  // namespace kestrune::fuzz
