// SPDX-License-Identifier: Apache-2.0
//
// Measured points in space against the truth.
#include "kestrune_scene/stereo_score.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <opencv2/calib3d.hpp>
#include <opencv2/core.hpp>
#include <tuple>

namespace kestrune::scene {

namespace {

constexpr int kNone = -1;
constexpr double kDegree = CV_PI / 180;
/// Half the step of the numeric derivative, px: far below the curvature of a triangulation, far above its rounding.
constexpr double kStep = 1e-2;

cv::Point2d trueCentre(const EllipseTruth& truth, PixelMeaning meaning) {
    return meaning == PixelMeaning::ellipseCentre ? truth.centre : truth.projectedCentre;
}

struct Nearest {
    int marker = kNone;
    double distance = std::numeric_limits<double>::infinity();
};

Nearest nearestMarker(const std::vector<MarkerTruth>& truth, std::size_t eye, cv::Point2d pixel, PixelMeaning meaning) {
    Nearest nearest;
    for (std::size_t m = 0; m < truth.size(); ++m) {
        if (!truth[m].eye.at(eye).visible) continue;
        const double distance = cv::norm(trueCentre(truth[m].eye.at(eye), meaning) - pixel);
        if (distance < nearest.distance) nearest = {static_cast<int>(m), distance};
    }
    return nearest;
}

/// A pair whose two pixels lie on one marker.
struct Claim {
    double distance;
    int marker, measured;
};

std::vector<Claim> claimsOf(const std::vector<MarkerTruth>& truth, const std::vector<MeasuredMarker>& measured,
                            PixelMeaning meaning, double maxDistance) {
    std::vector<Claim> claims;
    for (std::size_t i = 0; i < measured.size(); ++i) {
        const Nearest left = nearestMarker(truth, 0, measured[i].pixel[0], meaning);
        const Nearest right = nearestMarker(truth, 1, measured[i].pixel[1], meaning);
        const double distance = std::max(left.distance, right.distance);
        if (left.marker == right.marker && distance <= maxDistance)
            claims.push_back({distance, left.marker, static_cast<int>(i)});
    }
    std::sort(claims.begin(), claims.end(), [](const Claim& a, const Claim& b) {
        return std::tie(a.distance, a.marker, a.measured) < std::tie(b.distance, b.marker, b.measured);
    });
    return claims;
}

StereoMatch compare(const Disc& disc, const MeasuredMarker& measured, int marker, int index) {
    const double cosine = disc.normal.dot(measured.normal) / cv::norm(measured.normal);
    return {marker, index, cv::norm(measured.point - disc.centre),
            std::isnan(cosine) ? cosine : std::acos(std::clamp(cosine, -1.0, 1.0)) / kDegree,
            measured.radius - disc.radius};
}

/// Sum, sum of squares and largest of a series. NaN in it makes all three NaN.
class Series {
  public:
    void add(double value) {
        ++count_;
        sum_ += value;
        squares_ += value * value;
        largest_ = std::isnan(value) ? value : std::max(largest_, std::abs(value));
    }
    double mean() const { return count_ == 0 ? 0 : sum_ / count_; }
    double rms() const { return count_ == 0 ? 0 : std::sqrt(squares_ / count_); }
    double largest() const { return std::isnan(sum_) ? sum_ : largest_; }

  private:
    int count_ = 0;
    double sum_ = 0, squares_ = 0, largest_ = 0;
};

cv::Mat projectionOf(const PinholeCamera& camera) {
    cv::Mat pose;
    cv::hconcat(cv::Mat(camera.rotation), cv::Mat(camera.translation), pose);
    return cv::Mat(camera.intrinsic) * pose;
}

double largestDistance(const std::vector<MarkerTruth>& truth) {
    double largest = 0;
    for (const MarkerTruth& a : truth)
        for (const MarkerTruth& b : truth) largest = std::max(largest, cv::norm(a.disc.centre - b.disc.centre));
    return largest;
}

void summarise(const Exposure& exposure, const std::vector<MeasuredMarker>& measured, PixelMeaning meaning,
               StereoScore& score) {
    std::array<Series, 2> centres;
    Series points, normals, radii, implied;
    for (const StereoMatch& match : score.matches) {
        const MarkerTruth& truth = exposure.markers[static_cast<std::size_t>(match.marker)];
        const MeasuredMarker& marker = measured[static_cast<std::size_t>(match.measured)];
        for (std::size_t eye = 0; eye < 2; ++eye)
            centres[eye].add(cv::norm(trueCentre(truth.eye[eye], meaning) - marker.pixel[eye]));
        points.add(match.error);
        normals.add(match.normalError);
        radii.add(match.radiusError);
    }
    score.centreRms = {centres[0].rms(), centres[1].rms()};
    score.pointRms = points.rms();
    score.pointMax = points.largest();
    score.normalRms = normals.rms();
    score.normalMax = normals.largest();
    score.radiusMean = radii.mean();
    score.radiusRms = radii.rms();
    for (const StereoMatch& match : score.matches)
        implied.add(
            impliedPointError(exposure.rig, measured[static_cast<std::size_t>(match.measured)].pixel, score.centreRms));
    score.impliedRms = implied.rms();
    score.objectSize = largestDistance(exposure.markers);
}

}  // namespace

StereoScore scoreStereo(const Exposure& exposure, const std::vector<MeasuredMarker>& measured, PixelMeaning meaning,
                        double maxDistance) {
    const std::vector<MarkerTruth>& truth = exposure.markers;
    StereoScore score;
    std::vector<bool> markerTaken(truth.size()), right(measured.size());
    for (const Claim& claim : claimsOf(truth, measured, meaning, maxDistance)) {
        const auto m = static_cast<std::size_t>(claim.marker);
        const auto i = static_cast<std::size_t>(claim.measured);
        if (markerTaken[m]) continue;
        markerTaken[m] = right[i] = true;
        score.matches.push_back(compare(truth[m].disc, measured[i], claim.marker, claim.measured));
    }
    std::sort(score.matches.begin(), score.matches.end(),
              [](const StereoMatch& a, const StereoMatch& b) { return a.marker < b.marker; });
    for (std::size_t m = 0; m < truth.size(); ++m)
        if (truth[m].eye[0].visible && truth[m].eye[1].visible && !markerTaken[m])
            score.missed.push_back(static_cast<int>(m));
    for (std::size_t i = 0; i < measured.size(); ++i)
        if (!right[i]) score.wrong.push_back(static_cast<int>(i));
    summarise(exposure, measured, meaning, score);
    return score;
}

double impliedPointError(const Rig& rig, const std::array<cv::Point2d, 2>& pixel,
                         const std::array<double, 2>& centreRms) {
    const cv::Mat left = projectionOf(rig.left), right = projectionOf(rig.right);
    // Columns: each of the four coordinates a step down, then a step up.
    cv::Mat pixels[2] = {cv::Mat(2, 8, CV_64F), cv::Mat(2, 8, CV_64F)};
    for (int column = 0; column < 8; ++column) {
        for (int row = 0; row < 4; ++row) {
            const cv::Point2d& p = pixel[static_cast<std::size_t>(row / 2)];
            const double step = column / 2 == row ? (column % 2 == 0 ? -kStep : kStep) : 0;
            pixels[row / 2].at<double>(row % 2, column) = (row % 2 == 0 ? p.x : p.y) + step;
        }
    }
    cv::Mat points;
    cv::triangulatePoints(left, right, pixels[0], pixels[1], points);
    double squares = 0;
    for (int coordinate = 0; coordinate < 4; ++coordinate) {
        const cv::Mat down = points.col(2 * coordinate), up = points.col(2 * coordinate + 1);
        const double change = cv::norm(up.rowRange(0, 3) / up.at<double>(3) - down.rowRange(0, 3) / down.at<double>(3));
        const double perPixel = change / (2 * kStep);
        const double rms = centreRms[static_cast<std::size_t>(coordinate / 2)];
        squares += perPixel * perPixel * rms * rms / 2;  // half of the squared distance belongs to each coordinate
    }
    return std::sqrt(squares);
}

}  // namespace kestrune::scene
