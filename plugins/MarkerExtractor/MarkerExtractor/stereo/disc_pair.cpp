// SPDX-License-Identifier: Apache-2.0
#include "MarkerExtractor/stereo/disc_pair.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "MarkerExtractor/stereo/epipolar.h"

namespace kestrune {

namespace {

// Exponents of the score, a weighted geometric mean of four agreements that are each at most 1.
constexpr double kRatioWeight = 0.15;
constexpr double kNormalWeight = 0.25;
constexpr double kEpipolarWeight = 0.3;
constexpr double kRadiusWeight = 0.3;

/// Relative deviations of both radii from a nominal one; 0 where none is given.
struct RadiusDeviations {
    double left = 0, right = 0;
};

/// From the last nominal radius that both radii fit; nothing if there is no such radius.
std::optional<RadiusDeviations> fitNominalRadius(const DiscPair& discs, const MatchSettings& settings) {
    std::optional<RadiusDeviations> fit;
    if (settings.radii.empty()) fit.emplace();
    const double l = discs.left.radius, r = discs.right.radius, t = settings.sizeTolerance;
    for (const double nominal : settings.radii) {
        const double least = nominal * (1 - t), largest = nominal * (1 + t);
        if (!(l > least && l < largest && r > least && r < largest)) continue;
        fit = {std::abs(l / nominal - 1), std::abs(r / nominal - 1)};
    }
    return fit;
}

/// An ellipse without a real point leaves no radius.
bool isImaginary(const DiscPair& discs) {
    return std::isnan(discs.left.radius) || std::isnan(discs.right.radius);
}

/// The radius that keeps a candidate from the nominal one that it comes nearest to.
PairVerdict radiusVerdict(const DiscPair& discs, const MatchSettings& settings) {
    PairVerdict verdict{kNobody, kNobody, PairGate::radius};
    if (isImaginary(discs)) return {kNobody, kNobody, PairGate::circle};
    double nearest = std::numeric_limits<double>::infinity();
    for (const double nominal : settings.radii) {
        const double left = std::abs(discs.left.radius / nominal - 1),
                     right = std::abs(discs.right.radius / nominal - 1);
        if (!(std::max(left, right) < nearest)) continue;
        nearest = std::max(left, right);
        verdict.measured = left > right ? discs.left.radius : discs.right.radius;
        verdict.least = nominal * (1 - settings.sizeTolerance);
        verdict.largest = nominal * (1 + settings.sizeTolerance);
    }
    return verdict;
}

double scoreOf(const DiscPair& discs, const RadiusDeviations& deviations, const ConicRig& rig) {
    const double s = std::sqrt(0.5 * (deviations.left * deviations.left + deviations.right * deviations.right));
    const double radiusFactor = std::exp(-0.5 * (s * s));
    const cv::Point2f left = discs.left.centres[discs.leftNormal], right = discs.right.centres[discs.rightNormal];
    // The distance comes squared already, so that its square here is a fourth power of pixels: a wrong row ends a
    // candidate. Without a baseline the empty matrix is refused.
    const double e =
        rig.fundamental ? sampsonDistance(*rig.fundamental, left, right) : sampsonDistance(cv::Mat(), left, right);
    const double epipolarFactor = std::exp(-0.125 * (e * e));
    return std::exp(kRatioWeight * std::log(discs.radiusRatio) + kNormalWeight * std::log(discs.agreement) +
                    kEpipolarWeight * std::log(epipolarFactor) + kRadiusWeight * std::log(radiusFactor));
}

/// By its gates and, where it passes them, its score.
void judge(DiscCandidate& candidate, const DiscPair& discs, const ConicRig& rig, const ConicMatchSettings& settings) {
    const std::optional<RadiusDeviations> deviations = fitNominalRadius(discs, settings);
    if (!deviations) {
        candidate.verdict = radiusVerdict(discs, settings);
        return;
    }
    if (settings.minRadiusRatio > discs.radiusRatio) {
        candidate.verdict = {kNobody, kNobody, PairGate::radiusRatio, discs.radiusRatio, settings.minRadiusRatio};
        return;
    }
    candidate.discs = discs;
    candidate.score = scoreOf(discs, *deviations, rig);
    if (isImaginary(discs)) return;
    candidate.verdict = {kNobody, kNobody, PairGate::score, candidate.score};
}

}  // namespace

DiscPair pairDiscs(const CirclePose& left, const CirclePose& right) {
    const double least = std::min(left.radius, right.radius), largest = std::max(left.radius, right.radius);
    DiscPair discs{left, right, 0, 0, 0, least / largest};
    for (std::size_t l = 0; l < 2; ++l) {
        for (std::size_t r = 0; r < 2; ++r) {
            const double agreement = std::abs(right.normals[r].dot(left.normals[l]));
            const bool isFirst = l == 0 && r == 0;
            if (!isFirst && !(agreement > discs.agreement)) continue;
            discs.agreement = agreement;
            discs.leftNormal = l;
            discs.rightNormal = r;
        }
    }
    return discs;
}

cv::Vec3d DiscPair::normal() const {
    const cv::Vec3d sum = left.normals[leftNormal] + right.normals[rightNormal];
    const double length = cv::norm(sum);
    if (length == 0) return {0, 0, 0};
    return {sum[0] / length, sum[1] / length, sum[2] / length};  // by a product with 1 / length the last bit differs
}

DiscCandidate compareDiscs(const RoughCentre& centre, const geometry::Conic& left, const geometry::Conic& right,
                           const ConicRig& rig, const ConicMatchSettings& settings) {
    DiscCandidate candidate{centre.left, centre.right, std::nullopt, 0, {kNobody, kNobody, PairGate::circle}};
    const std::optional<CirclePose> leftPose = circlePose(rig.leftCamera, centre.inLeft, left);
    std::optional<CirclePose> rightPose = circlePose(rig.rightCamera, centre.inRight, right);
    if (leftPose && rightPose) {
        cv::transform(rightPose->normals, rightPose->normals, rig.turnBack);
        judge(candidate, pairDiscs(*leftPose, *rightPose), rig, settings);
    }
    candidate.verdict.left = centre.left;
    candidate.verdict.right = centre.right;
    return candidate;
}

}  // namespace kestrune
