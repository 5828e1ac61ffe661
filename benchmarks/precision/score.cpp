// SPDX-License-Identifier: Apache-2.0
#include "score.h"

#include <algorithm>
#include <cmath>

#include "bound.h"

namespace kestrune::bench {
namespace {

constexpr double kHitRadius = 2;   ///< px: a detection farther away is of something else
constexpr int kBoundMarkers = 16;  ///< of which the bound is averaged over places in the pixel and angles

constexpr double kBeyond = 4.5;  ///< sigmas of the centre: one right error in 25000 is larger

constexpr int kNone = -1;

/// The marker of each detection, nearest pairs first, each used once.
std::vector<int> assign(const Scene& scene, const std::vector<Found>& found) {
    struct Pair {
        double distance;
        int detection, marker;
    };
    const double most = std::min(kHitRadius, 0.5 * scene.kind.minorHalfAxis());
    std::vector<Pair> pairs;
    for (int i = 0; i < static_cast<int>(found.size()); ++i)
        for (int k = 0; k < static_cast<int>(scene.markers.size()); ++k) {
            const cv::Point2d off =
                found[static_cast<std::size_t>(i)].centre - scene.markers[static_cast<std::size_t>(k)].ellipse.centre();
            const double distance = std::hypot(off.x, off.y);
            if (distance <= most) pairs.push_back({distance, i, k});
        }
    std::sort(pairs.begin(), pairs.end(), [](const Pair& a, const Pair& b) { return a.distance < b.distance; });
    std::vector<int> marker(found.size(), kNone);
    std::vector<bool> used(scene.markers.size(), false);
    for (const Pair& pair : pairs) {
        int& place = marker[static_cast<std::size_t>(pair.detection)];
        if (place != kNone || used[static_cast<std::size_t>(pair.marker)]) continue;
        place = pair.marker;
        used[static_cast<std::size_t>(pair.marker)] = true;
    }
    return marker;
}

void addNormalised(Score& score, const TrueMarker& truth, const MarkerEstimate& estimate) {
    const Ellipse measured =
        Ellipse::of(estimate.centre, estimate.majorHalfAxis, estimate.minorHalfAxis, estimate.angle);
    const Ellipse& right = truth.ellipse;
    const cv::Vec<double, 5> error{measured.x - right.x, measured.y - right.y, measured.s - right.s,
                                   measured.e1 - right.e1, measured.e2 - right.e2};
    const cv::Matx<double, 5, 5> covariance = estimate.ellipseCovariance();
    score.normalisedCentre += error[0] * error[0] / covariance(0, 0) + error[1] * error[1] / covariance(1, 1);
    const cv::Vec2d off(error[0], error[1]);
    const double distance = off.dot(estimate.centreCovariance().inv() * off);
    if (distance > kBeyond * kBeyond) ++score.beyond;
    score.normalisedRadius += error[2] * error[2] / covariance(2, 2);
    score.chiSquare += (error.t() * covariance.inv() * error)[0];
}

void addTo(Score& score, const Scene& scene, const std::vector<Found>& found, const std::vector<int>& assigned) {
    score.markers += static_cast<int>(scene.markers.size());
    for (std::size_t i = 0; i < found.size(); ++i) {
        if (assigned[i] == kNone) {
            ++score.wrong;
            continue;
        }
        ++score.found;
        const auto& estimate = found[i].estimate;
        if (estimate) ++score.statuses[static_cast<std::size_t>(estimate->status)];
        if (estimate && !estimate->isRefined()) continue;
        ++score.judged;
        const TrueMarker& truth = scene.markers[static_cast<std::size_t>(assigned[i])];
        const cv::Point2d error = found[i].centre - truth.ellipse.centre();
        score.squares += error.dot(error);
        score.along += error.dot(truth.direction);
        score.sum += error;
        if (!std::isnan(found[i].meanHalfAxis)) {
            const double radiusError = found[i].meanHalfAxis - truth.ellipse.s;
            ++score.radii;
            score.radiusSum += radiusError;
            score.radiusSquares += radiusError * radiusError;
        }
        if (estimate) addNormalised(score, truth, *estimate);
    }
}

struct LimitSums {
    int markers = 0;
    double centre = 0, centreExact = 0, radius = 0, leastAxis = 0;

    /// Of markers from all over the scene, as the lens and the light change the bound with the place.
    void add(const Scene& scene) {
        if (markers >= kBoundMarkers) return;
        const std::size_t step = (scene.markers.size() + kBoundMarkers - 1) / kBoundMarkers;
        for (std::size_t k = 0; k < scene.markers.size(); k += step) {
            const TrueMarker& marker = scene.markers[k];
            ++markers;
            const Matrix8 real = bound(scene, marker, roundingVariance(scene.kind)), exact = bound(scene, marker, 0);
            centre += 0.5 * (real(0, 0) + real(1, 1));
            centreExact += 0.5 * (exact(0, 0) + exact(1, 1));
            radius += real(2, 2);
            leastAxis += real(2, 2) + real(3, 3) + real(4, 4);
        }
    }
    Limits limits(double minorHalfAxis) const {
        return {std::sqrt(centre / markers), std::sqrt(radius / markers), std::sqrt(centreExact / markers),
                std::sqrt(leastAxis / markers) / minorHalfAxis};
    }
};

double rootOf(double sum, int count) {
    return std::sqrt(sum / count);
}

}  // namespace

double Score::rms() const {
    return rootOf(squares, 2 * judged);
}

double Row::radiusError() const {
    return score.radiusSum / score.radii;
}

double Row::normalisedCentre() const {
    return rootOf(score.normalisedCentre, 2 * score.judged);
}

double Row::normalisedRadius() const {
    return rootOf(score.normalisedRadius, score.judged);
}

double Row::normalisedEllipse() const {
    return rootOf(score.chiSquare, 5 * score.judged);
}

std::vector<Row> judge(const Kind& kind, const std::vector<Detector>& detectors, int markers, unsigned seed) {
    std::mt19937_64 random(seed);
    std::vector<Row> rows;
    for (const Detector& detector : detectors)
        for (const bool refined : {false, true})
            rows.push_back({.kind = kind, .detector = detector.name, .refined = refined, .score = {}, .limits = {}});
    LimitSums sums;
    for (int left = markers; left > 0;) {
        const Scene scene = makeScene(kind, left, random);
        left -= static_cast<int>(scene.markers.size());
        sums.add(scene);
        for (std::size_t k = 0; k < detectors.size(); ++k) {
            const Findings findings = detectors[k].find(scene, random);
            const std::vector<int> assigned = assign(scene, findings.found);
            addTo(rows[2 * k].score, scene, findings.found, assigned);
            if (!findings.refined.empty())
                addTo(rows[2 * k + 1].score, scene, findings.refined, assigned);
            else
                rows[2 * k + 1].score.markers += static_cast<int>(scene.markers.size());
        }
    }
    for (Row& row : rows) row.limits = sums.limits(kind.minorHalfAxis());
    return rows;
}

}  // namespace kestrune::bench
