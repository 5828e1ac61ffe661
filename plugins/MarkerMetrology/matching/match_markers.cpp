// SPDX-License-Identifier: Apache-2.0
#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <limits>

#include "kestrune/MarkerMetrology/matching.h"
#include "matching/report.h"
#include "parallel/parallel_loop.h"
#include "refinement/first_guess.h"
#include "refinement/rig_check.h"

namespace kestrune {
namespace {

using namespace matching;

// Neighbouring points of an outline are off together: so many of them tell as much as one.
constexpr double kPointsTogether = 4;
// A path's centre is not better than this, px, whatever its outline says.
constexpr double kLeastPlainSigma = 0.02;
// Of an outline whose points are not known, px.
constexpr double kUnknownSigma = 0.3;

[[noreturn]] void refuse(const std::string& text) {
    CV_Error(cv::Error::StsBadArg, text);
}

bool isLength(double value) {
    return value > 0 && std::isfinite(value);
}

void check(const MatchOptions& options) {
    for (const double radius : options.radii)
        if (!isLength(radius)) refuse(fmt::format("radii: {} is no radius", radius));
    if (!(options.radiusTolerance > 0 && options.radiusTolerance < 1))
        refuse(fmt::format("radiusTolerance: {} is not between 0 and 1", options.radiusTolerance));
    const auto [nearest, farthest] = options.depth;
    const bool isUnknown = nearest == 0 && farthest == 0;
    if (!isUnknown && !(nearest >= 0 && nearest < farthest && std::isfinite(farthest)))
        refuse(fmt::format("depth: {} to {} is no range in front of the cameras", nearest, farthest));
    if (!(options.sure > 0.5 && options.sure < 1))
        refuse(fmt::format("sure: {} is not above 0.5 and below 1", options.sure));
    for (const KnownMarker& marker : options.object) {
        const auto& c = marker.centre;
        const bool isPlace = std::isfinite(c[0]) && std::isfinite(c[1]) && std::isfinite(c[2]);
        if (!isPlace || !isLength(marker.sigma) || !(marker.radius == 0 || isLength(marker.radius)))
            refuse("object: a marker's place, radius or sigma is not a number, or not in its range");
    }
}

}  // namespace

StereoMatch matchMarkers(const std::vector<MarkerEstimate>& left, const std::vector<MarkerEstimate>& right,
                         const RigMatrices& rig, const MatchOptions& options) {
    const ParallelCall call;
    requireRig(rig);
    check(options);
    const cv::Vec3d translation(rig.translation.at<double>(0), rig.translation.at<double>(1),
                                rig.translation.at<double>(2));
    const EpipolarFrame frame = EpipolarFrame::of(rig, cv::Matx33d(rig.rotation), translation);
    Beforehand known;
    for (const double radius : options.radii) known.radii.logarithms.push_back(std::log(radius));
    std::sort(known.radii.logarithms.begin(), known.radii.logarithms.end());  // so that their order changes no bit
    known.radii.tolerance = options.radiusTolerance;
    known.depth = options.depth;
    known.object = options.object;
    known.estimateSigmas = options.estimateSigmas;
    const MarkerLists markers = {&left, &right};
    return reportOf(markers, rig, options, attemptAll(markers, rig.cameras, frame, known));
}

MarkerEstimate plainEstimate(const Corner& corner) {
    MarkerEstimate estimate;
    constexpr double kNotKnown = std::numeric_limits<double>::quiet_NaN();
    estimate.inside = estimate.outside = estimate.blur = estimate.noise = estimate.residual = kNotKnown;
    estimate.centre = {kNotKnown, kNotKnown};
    estimate.majorHalfAxis = estimate.minorHalfAxis = estimate.angle = kNotKnown;
    const auto ellipse = refinement::ellipseOfRecord(corner);
    if (!ellipse) return estimate;
    estimate.centre = {ellipse->x, ellipse->y};
    estimate.majorHalfAxis = ellipse->majorHalfAxis();
    estimate.minorHalfAxis = ellipse->minorHalfAxis();
    estimate.angle = ellipse->angle();
    // Least squares of r(u) = s + x cos u + y sin u + e1 cos 2u + e2 sin 2u on points that are off by `off`.
    double off = corner.conicValid ? 0.5 * corner.fitResidual * ellipse->s : corner.fitError;
    if (!(off > 0 && std::isfinite(2 * off * off))) off = kUnknownSigma;
    const double points = std::max(5.0, static_cast<double>(corner.contour.size())) / kPointsTogether;
    const double variance = std::max(off * off / points, 0.5 * kLeastPlainSigma * kLeastPlainSigma);
    for (int k = 0; k < 5; ++k) estimate.covariance(k, k) = k == 2 ? variance : 2 * variance;
    return estimate;
}

}  // namespace kestrune
