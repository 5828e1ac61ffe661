// SPDX-License-Identifier: Apache-2.0
//
// Detections against the truth.
#include <algorithm>
#include <cmath>
#include <opencv2/core.hpp>
#include <tuple>
#include <vector>

#include "kestrune_scene/scene.h"

namespace kestrune::scene {

namespace {

/// Every pair of a visible marker and a detection that is near enough, nearest first.
std::vector<DetectionMatch> pairsByDistance(const std::vector<MarkerTruth>& truth, int eye,
                                            const std::vector<cv::Point2d>& detections, bool undistorted,
                                            double maxDistance) {
    std::vector<DetectionMatch> pairs;
    for (std::size_t m = 0; m < truth.size(); ++m) {
        const EllipseTruth& ellipse = truth[m].eye.at(static_cast<std::size_t>(eye));
        if (!ellipse.visible) continue;
        const cv::Point2d centre = undistorted ? ellipse.centre : ellipse.distortedCentre;
        for (std::size_t d = 0; d < detections.size(); ++d) {
            const double error = std::hypot(detections[d].x - centre.x, detections[d].y - centre.y);
            if (error <= maxDistance) pairs.push_back({static_cast<int>(m), static_cast<int>(d), error});
        }
    }
    std::sort(pairs.begin(), pairs.end(), [](const DetectionMatch& a, const DetectionMatch& b) {
        return std::tie(a.error, a.marker, a.detection) < std::tie(b.error, b.marker, b.detection);
    });
    return pairs;
}

}  // namespace

DetectionScore scoreDetections(const std::vector<MarkerTruth>& truth, int eye,
                               const std::vector<cv::Point2d>& detections, bool undistorted, double maxDistance) {
    DetectionScore score;
    std::vector<bool> markerTaken(truth.size()), detectionTaken(detections.size());
    double squares = 0;
    for (const DetectionMatch& pair : pairsByDistance(truth, eye, detections, undistorted, maxDistance)) {
        const auto marker = static_cast<std::size_t>(pair.marker), detection = static_cast<std::size_t>(pair.detection);
        if (markerTaken[marker] || detectionTaken[detection]) continue;
        markerTaken[marker] = detectionTaken[detection] = true;
        score.matches.push_back(pair);
        squares += pair.error * pair.error;
        score.centreMax = std::max(score.centreMax, pair.error);
    }
    if (!score.matches.empty()) score.centreRms = std::sqrt(squares / static_cast<double>(score.matches.size()));
    std::sort(score.matches.begin(), score.matches.end(),
              [](const DetectionMatch& a, const DetectionMatch& b) { return a.marker < b.marker; });
    for (std::size_t m = 0; m < truth.size(); ++m) {
        const bool visible = truth[m].eye.at(static_cast<std::size_t>(eye)).visible;
        if (visible && !markerTaken[m]) score.missed.push_back(static_cast<int>(m));
    }
    for (std::size_t d = 0; d < detections.size(); ++d)
        if (!detectionTaken[d]) score.falseOnes.push_back(static_cast<int>(d));
    return score;
}

}  // namespace kestrune::scene
