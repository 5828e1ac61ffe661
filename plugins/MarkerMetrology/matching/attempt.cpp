// SPDX-License-Identifier: Apache-2.0
#include "matching/attempt.h"

#include <algorithm>
#include <cmath>

#include "matching/known_object.h"
#include "matching/spread.h"
#include "refinement/lens.h"

namespace kestrune::matching {
namespace {

// Foreign rigs and unlike views match fewer than this by chance, with less evidence for each pair, or at distances from
// the epipolar planes that no noise explains even where sigmas are told too small by two.
constexpr double kLeastShare = 0.25, kLeastGain = 5, kMostCentreScale = 2.6;
// Where markers are measured better than the rig is calibrated, such distances are usual, px.
constexpr double kCalibrationNoise = 0.2;
constexpr double kLeastPairs = 3;
// Exposures of a right rig are better than this, but for few.
constexpr double kGoodShare = 0.45, kGoodCentreScale = 1.5, kGoodShapeScale = 1.3;
// A pattern is one if it explains so much of chi-square, its five numbers not counted, and is not below the noise.
constexpr double kLeastPattern = 30, kLeastSize = 0.15;
// Another explanation must have so much more evidence, as a ratio.
constexpr double kBetter = 1.15, kNearlyAsGood = 0.85;
// A camera that turned by more than this was not calibrated but built anew, radians; what it matches is good.
constexpr double kMostTurn = 0.01, kMovedShare = 0.4, kMovedCentreScale = 2.1;
constexpr int kMotionRounds = 2;

using Found = std::unique_ptr<Attempt>;

bool isBetter(const Found& a, const Found& b) {
    return a->isPlausible() && (!b->isPlausible() || a->gain() > kBetter * b->gain());
}

/// Whether a rig that moved so much, and what it then matches, is one that was calibrated and not a foreign one.
bool isSettled(const Attempt& attempt, const EpipolarFrame& told) {
    return turnBetween(told, attempt.frame) <= kMostTurn && attempt.share() >= kMovedShare &&
           (attempt.best().scales.centre <= kMovedCentreScale || attempt.epipolarNoise() <= kCalibrationNoise);
}

/// Whether two attempts have the same pairs, but for a few.
bool isSame(const Attempt& a, const Attempt& b) {
    std::vector<std::pair<int, int>> both;
    const auto pairsOf = [](const Attempt& attempt) {
        std::vector<std::pair<int, int>> result;
        for (const int c : attempt.best().partner) {
            if (c < 0) continue;
            const Candidate& its = attempt.solver.candidates()[static_cast<std::size_t>(c)];
            result.push_back({attempt.views.number[0][static_cast<std::size_t>(its.left)],
                              attempt.views.number[1][static_cast<std::size_t>(its.right)]});
        }
        std::sort(result.begin(), result.end());
        return result;
    };
    const auto ofA = pairsOf(a), ofB = pairsOf(b);
    std::set_intersection(ofA.begin(), ofA.end(), ofB.begin(), ofB.end(), std::back_inserter(both));
    return 2 * both.size() > std::min(ofA.size(), ofB.size());
}

/// Markers that were freed of one lens although they were seen through another.
std::vector<MarkerEstimate> throughOther(const std::vector<MarkerEstimate>& markers, const Camera& from,
                                         const Camera& to) {
    std::vector<MarkerEstimate> result = markers;
    for (MarkerEstimate& marker : result) {
        const auto ellipse =
            geometry::SmoothEllipse::of(marker.centre, marker.majorHalfAxis, marker.minorHalfAxis, marker.angle);
        if (!ellipse.isFinite() || !(ellipse.minorHalfAxis() > 0)) continue;
        const geometry::SmoothEllipse seen = distortedEllipse(ellipse, from);
        marker.centre = {seen.x, seen.y};
        marker.majorHalfAxis = seen.majorHalfAxis();
        marker.minorHalfAxis = seen.minorHalfAxis();
        marker.angle = seen.angle();
        marker = undistorted(marker, to);
    }
    return result;
}

/// Takes the pattern of an attempt's pairs out, and matches again.
void correct(const MarkerLists& markers, const Beforehand& known, const EpipolarFrame& told, Attempts& attempts) {
    for (int round = 0; round < kMotionRounds; ++round) {
        const Attempt& now = *attempts.best;
        const RigMotion motion = motionOf(now.views, now.solver, now.best());
        if (!(motion.gained > kLeastPattern && motion.size > kLeastSize * motion.sigma)) return;
        Found next = std::make_unique<Attempt>(markers, movedFrame(now.frame, motion), known);
        if (!next->isPlausible() || next->gain() < now.gain() || !isSettled(*next, told)) return;
        attempts.best = std::move(next);
        attempts.hasMoved = true;
    }
}

}  // namespace

Eigen::Vector3d Attempt::placeOf(const Candidate& candidate) const {
    const Eigen::Vector3d& axis = views.lines[0][static_cast<std::size_t>(candidate.left)].axis;
    return std::exp(candidate.agreement.fits[0].logDepth) / axis.z() * axis;
}

void Attempt::useObject(const std::vector<KnownMarker>& object) {
    std::vector<SpacePoint> points;
    for (std::size_t c = 0; c < solver.candidates().size(); ++c) {
        const Candidate& candidate = solver.candidates()[c];
        const CircleFit& fit = candidate.agreement.fits[0];
        const Sightline& line = views.lines[0][static_cast<std::size_t>(candidate.left)];
        SpacePoint point;
        point.left = candidate.left;
        point.right = candidate.right;
        point.place = placeOf(candidate);
        const double distance = point.place.norm(), scale = best().scales.centre;
        const Eigen::Vector3d along = scale * fit.sigmaDepth * point.place;
        const Eigen::Vector3d side = scale * line.sigmaAlpha * distance * line.side;
        const Eigen::Vector3d up = scale * line.sigmaPhi * std::sin(line.alpha) * distance * line.up;
        point.covariance = along * along.transpose() + side * side.transpose() + up * up.transpose();
        point.logRadius = fit.logRadius;
        point.sigmaRadius = fit.sigmaRadius;
        point.probability = best().assignment.probability[c];
        points.push_back(point);
    }
    const ObjectFit fit = fitObject(points, object);
    if (!fit.found) return;
    solver.setObject(fit.evidence);
    decision = decide(views, solver);
}

double Attempt::share() const {
    const auto least = static_cast<double>(std::min(views.lines[0].size(), views.lines[1].size()));
    return least > 0 ? best().pairs / least : 0;
}

bool Attempt::isPlausible() const {
    return best().pairs >= kLeastPairs && share() >= kLeastShare && gain() >= kLeastGain * best().pairs &&
           (best().scales.centre <= kMostCentreScale || epipolarNoise() <= kCalibrationNoise);
}

double Attempt::epipolarNoise() const {
    std::vector<double> sigmas;
    for (const int c : best().partner) {
        if (c < 0) continue;
        const Candidate& its = solver.candidates()[static_cast<std::size_t>(c)];
        const Sightline& line = views.lines[1][static_cast<std::size_t>(its.right)];
        sigmas.push_back(best().scales.centre * its.agreement.fits[0].sigmaEpipolar * std::sin(line.alpha) /
                         line.pixel);
    }
    return medianOf(std::move(sigmas), 0);
}

bool Attempt::agreesWithSigmas() const {
    return isPlausible() && (best().scales.centre <= kGoodCentreScale || epipolarNoise() <= kCalibrationNoise) &&
           best().scales.shape <= kGoodShapeScale;
}

bool Attempt::isGood() const {
    return agreesWithSigmas() && share() >= kGoodShare;
}

Attempts attemptAll(const MarkerLists& markers, const Cameras& cameras, const EpipolarFrame& frame,
                    const Beforehand& known) {
    Attempts attempts;
    attempts.best = std::make_unique<Attempt>(markers, frame, known);
    const bool isMuch = attempts.best->best().scales.centre > kGoodCentreScale;
    correct(markers, known, frame, attempts);
    if (attempts.best->isGood() && !(attempts.hasMoved && isMuch)) return attempts;

    double second = 0;
    bool isToldPossible = false;  // though few markers match: a pattern can be turned onto itself
    for (const RigMotion& motion : searchMotions(viewsOf(markers, frame))) {
        Attempts moved;
        moved.best = std::make_unique<Attempt>(markers, movedFrame(frame, motion), known);
        moved.hasMoved = true;
        correct(markers, known, frame, moved);
        if (!isSettled(*moved.best, frame)) continue;
        if (isBetter(moved.best, attempts.best)) {
            const bool isOther = attempts.best->isPlausible() && !isSame(*moved.best, *attempts.best);
            second = isOther ? attempts.best->gain() : 0;
            isToldPossible = isToldPossible || (isOther && !attempts.hasMoved && attempts.best->agreesWithSigmas());
            attempts = std::move(moved);
        } else if (!isSame(*moved.best, *attempts.best)) {
            second = std::max(second, moved.best->gain());
        }
    }
    attempts.isMotionAmbiguous =
        attempts.hasMoved && (isToldPossible || second > kNearlyAsGood * attempts.best->gain());
    if (attempts.best->isGood()) return attempts;

    const std::vector<MarkerEstimate> lefts = throughOther(*markers[1], cameras[1], cameras[0]),
                                      rights = throughOther(*markers[0], cameras[0], cameras[1]);
    const Found exchanged = std::make_unique<Attempt>(MarkerLists{&lefts, &rights}, frame, known);
    attempts.isExchanged = isBetter(exchanged, attempts.best);
    return attempts;
}

}  // namespace kestrune::matching
