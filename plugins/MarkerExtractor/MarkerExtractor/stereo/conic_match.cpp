// SPDX-License-Identifier: Apache-2.0
#include "MarkerExtractor/stereo/conic_match.h"

#include <array>
#include <cmath>
#include <opencv2/calib3d.hpp>

#include "MarkerExtractor/stereo/conic_verdicts.h"
#include "MarkerExtractor/stereo/disc_pair.h"
#include "MarkerExtractor/stereo/mutual_best.h"
#include "MarkerExtractor/stereo/space_points.h"

namespace kestrune {

namespace {

/// From the rectified frame to that of either camera. In lists, because `cv::transform` takes other roundings than a
/// product of matrix and vector, and leaves out what is not on the diagonal of all but diagonal matrices.
std::vector<RoughCentre> roughCentres(const std::vector<RowCandidate>& candidates, const ConicRig& rig) {
    if (candidates.empty()) return {};
    std::vector<cv::Vec3d> inLeft, inRight;
    for (const RowCandidate& c : candidates) inLeft.push_back(c.point);
    cv::transform(inLeft, inLeft, rig.fromRectified);
    cv::transform(inLeft, inRight, rig.pose);
    std::vector<RoughCentre> centres;
    for (std::size_t k = 0; k < candidates.size(); ++k) {
        centres.push_back({candidates[k].left, candidates[k].right, inLeft[k], inRight[k]});
    }
    return centres;
}

cv::Vec3d triangulate(const ConicRig& rig, const MutualBest::Centres& centres) {
    cv::Matx41f x;  // in single precision, as the centres are
    cv::triangulatePoints(rig.leftProjection, rig.rightProjection, std::array{centres.left}, std::array{centres.right},
                          x);
    return {x(0) / x(3), x(1) / x(3), x(2) / x(3)};
}

void moveTo(Corner& corner, const cv::Point2f& centre) {
    corner.x = centre.x;
    corner.y = centre.y;
}

}  // namespace

std::vector<DiscMatch> matchDiscs(std::vector<Corner>& leftCorners, std::vector<Corner>& rightCorners,
                                  CircleMarkerExtractor& extractor, bool cornersRectified,
                                  const ConicMatchSettings& settings, PairVerdicts* verdicts) {
    if (leftCorners.empty() || rightCorners.empty()) return {};
    const auto leftCorner = [&](const auto& c) -> Corner& { return leftCorners[static_cast<std::size_t>(c.left)]; };
    const auto rightCorner = [&](const auto& c) -> Corner& { return rightCorners[static_cast<std::size_t>(c.right)]; };

    const RectifiedCentres centres = rectifiedCentres(leftCorners, rightCorners, extractor, cornersRectified);
    const ConicRig rig = takeConicRig(extractor, cornersRectified);
    const std::vector<RowCandidate> rows =
        candidatesInRows(centres.left, centres.right, rig.disparityMap, settings.place, verdicts);

    std::vector<DiscCandidate> candidates;
    MutualBest best(leftCorners.size(), rightCorners.size());
    for (const RoughCentre& rough : roughCentres(rows, rig)) {
        candidates.push_back(compareDiscs(rough, leftCorner(rough).conic, rightCorner(rough).conic, rig, settings));
        if (candidates.back().discs) best.offer(candidates.back());
    }
    std::vector<DiscMatch> matches;
    for (DiscCandidate& c : candidates) {
        const auto found = c.discs ? best.centresOf(c) : std::nullopt;
        if (!found) continue;
        moveTo(leftCorner(c), found->left);
        moveTo(rightCorner(c), found->right);
        matches.push_back({{c.left, c.right, triangulate(rig, *found)}, c.discs->normal(), c.discs->radius()});
    }
    if (verdicts != nullptr) explainCandidates(candidates, matches, centres, settings.place, *verdicts);
    return matches;
}

void matchConicCorners(std::vector<Corner>& leftCorners, std::vector<Corner>& rightCorners,
                       std::vector<std::pair<int, int>>& pairs, std::vector<Point3_<double>>& points,
                       std::vector<Point3_<double>>& normals, std::vector<double>& radii,
                       CircleMarkerExtractor& extractor, const CicrleConfigs& configs) {
    requireConicCalibration(extractor, configs.cornersRectified);
    const std::vector<DiscMatch> matches = matchDiscs(leftCorners, rightCorners, extractor, configs.cornersRectified,
                                                      conicMatchSettings(configs), nullptr);
    pairs.clear();
    points.clear();
    normals.clear();
    radii.clear();
    for (const DiscMatch& match : matches) {
        pairs.emplace_back(match.left, match.right);
        points.push_back(recordOf(match.point));
        normals.push_back(recordOf(match.normal));
        radii.push_back(match.radius);
    }
}

}  // namespace kestrune
