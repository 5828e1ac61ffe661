// SPDX-License-Identifier: Apache-2.0
#include "MarkerExtractor/stereo/pair_gates.h"

#include <algorithm>
#include <cmath>
#include <opencv2/calib3d.hpp>

namespace kestrune {

namespace {

/// Row differences of less than this have no sign: about what a contour's top and bottom scatter by.
constexpr double kRowSlack = 1.0;
/// The same under `looseSizeGate`, where the slack also grows with the row band.
constexpr double kLooseRowSlack = 2.0;
constexpr double kLooseRowShare = 0.5;
/// Of three comparisons of row differences, those that must agree in sign.
constexpr int kLeastRowVotes = 2;

double rowSlackOf(const RectifiedMatchSettings& settings) {
    if (!settings.looseSizeGate) return kRowSlack;
    return std::max(kLooseRowSlack, kLooseRowShare * settings.place.maxRowDifference);
}

/// Whether two row differences have the same sense, or are both too small to have one. The product is narrowed first:
/// what vanishes in single precision counts as no sense at all.
bool sameSense(double a, double b, double sizeA, double sizeB, double slack) {
    return static_cast<float>(a * b) >= 0.0f || (slack > sizeA && slack > sizeB);
}

}  // namespace

bool areasAgree(double left, double right, double tolerance) {
    if (!std::isfinite(left) || !std::isfinite(right)) return false;  // the ratio to an infinite one would be a number
    const double ratio = left < right ? left / right : right / left;
    return ratio > 1.0 - std::abs(tolerance) && ratio < 1.0 + std::abs(tolerance);
}

bool rowsAgree(const Samples& left, const Samples& right, double maxRowDifference, double slack) {
    const double centre = left[kCentre].y - right[kCentre].y;
    const double top = left[kTop].y - right[kTop].y;
    const double bottom = left[kBottom].y - right[kBottom].y;
    const double centreSize = std::abs(centre);
    const double topSize = std::abs(top - centre);
    const double bottomSize = std::abs(bottom - centre);
    if (!(centreSize < maxRowDifference && topSize < maxRowDifference && bottomSize < maxRowDifference)) return false;
    if (static_cast<float>(bottom * top) < 0.0f && topSize > slack && bottomSize > slack) return false;
    const int votes = static_cast<int>(sameSense(top, centre, centreSize, topSize, slack)) +
                      static_cast<int>(sameSense(bottom, centre, centreSize, bottomSize, slack)) +
                      static_cast<int>(sameSense(bottom, top, topSize, bottomSize, slack));
    return votes >= kLeastRowVotes;
}

PairGates::PairGates(const RectifiedRig& rig, const RectifiedMatchSettings& settings)
    : rig_(rig),
      size_(settings),
      place_(settings.place),
      areaTolerance_(settings.sizeTolerance),
      comparesCentresOnly_(settings.plainRowGate),
      rowSlack_(rowSlackOf(settings)) {}

/// Each point is found by itself, and by a decomposition: it pays to ask for no more than are needed.
template <std::size_t kFirst, std::size_t kCount>
void PairGates::triangulate(const RectifiedMarker& left, const RectifiedMarker& right, SamplesInSpace& samples) const {
    std::array<cv::Point2d, kCount> inLeft, inRight;
    std::copy_n(&(*left.samples)[kFirst], kCount, inLeft.begin());
    std::copy_n(&(*right.samples)[kFirst], kCount, inRight.begin());
    cv::Matx<double, 4, int{kCount}> homogeneous;
    cv::triangulatePoints(rig_.leftProjection, rig_.rightProjection, inLeft, inRight, homogeneous);
    for (std::size_t c = 0; c < kCount; ++c) {
        const auto column = static_cast<int>(c);
        const double w = homogeneous(3, column);
        for (int r = 0; r < 3; ++r) samples[kFirst + c][r] = homogeneous(r, column) / w;
    }
}

std::optional<PairCandidate> PairGates::candidateOf(const RectifiedMarker& left, const RectifiedMarker& right) const {
    if (!arePlacesAlike(left, right)) return std::nullopt;
    SamplesInSpace samples;
    triangulate<kCentre, 1>(left, right, samples);
    if (!isDepthInRange(samples[kCentre][2])) return std::nullopt;
    triangulate<kCentre + 1, kSampleCount - 1>(left, right, samples);
    const MarkerSize size = markerSize(samples);
    if (!size_.passes(size)) return std::nullopt;
    return PairCandidate{-1, rig_.toResult * samples[kCentre], size.radius};
}

PairVerdict PairGates::refusal(const RectifiedMarker& left, const RectifiedMarker& right) const {
    if (!arePlacesAlike(left, right)) return refusalOfPlaces(left, right);
    SamplesInSpace samples;
    triangulate<kCentre, kSampleCount>(left, right, samples);
    const double depth = samples[kCentre][2];
    if (isDepthInRange(depth)) return size_.refusal(markerSize(samples));
    return {kNobody, kNobody, PairGate::depth, depth, std::max(place_.minDepth, 0.0), place_.maxDepth};
}

bool PairGates::arePlacesAlike(const RectifiedMarker& left, const RectifiedMarker& right) const {
    if (!areasAgree(left.area, right.area, areaTolerance_)) return false;
    if (comparesCentresOnly_) return !(std::abs(left.centre.y - right.centre.y) >= place_.maxRowDifference);
    return rowsAgree(*left.samples, *right.samples, place_.maxRowDifference, rowSlack_);
}

/// A marker's rows say more of where its partner is than its area: they are told first.
PairVerdict PairGates::refusalOfPlaces(const RectifiedMarker& left, const RectifiedMarker& right) const {
    const double centre = left.centre.y - right.centre.y, band = place_.maxRowDifference;
    const bool inBand = comparesCentresOnly_ ? !(std::abs(centre) >= band) : std::abs(centre) < band;
    if (!inBand) return {kNobody, kNobody, PairGate::rows, std::abs(centre), -kUnbounded, band};
    if (!areasAgree(left.area, right.area, areaTolerance_)) {
        const double ratio = left.area < right.area ? left.area / right.area : right.area / left.area;
        return {kNobody, kNobody, PairGate::area, ratio, 1.0 - std::abs(areaTolerance_)};
    }
    const Samples &l = *left.samples, &r = *right.samples;
    const double top = std::abs(l[kTop].y - r[kTop].y - centre);
    const double bottom = std::abs(l[kBottom].y - r[kBottom].y - centre);
    return {kNobody, kNobody, PairGate::rimRows, std::max(top, bottom), -kUnbounded, std::min(band, rowSlack_)};
}

}  // namespace kestrune
