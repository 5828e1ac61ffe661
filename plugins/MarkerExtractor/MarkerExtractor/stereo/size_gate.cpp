// SPDX-License-Identifier: Apache-2.0
#include "MarkerExtractor/stereo/size_gate.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "MarkerExtractor/stereo/nan_last.h"

namespace kestrune {

namespace {

/// Share of `sizeTolerance` by which a radius may lie below the nominal one. Above it there is far more room, because
/// the contour of a bright marker grows with exposure and blur.
constexpr double kToleranceBelow = 0.5;
constexpr double kRatioAbove = 1.8;
constexpr double kScoredRatioAbove = 1.95;

}  // namespace

MarkerSize markerSize(const SamplesInSpace& samples) {
    std::array<double, kSampleCount - 1> distances;
    for (std::size_t c = 1; c < samples.size(); ++c) distances[c - 1] = cv::norm(samples[c] - samples[kCentre]);
    std::ranges::sort(distances, AscendingNanLast());

    constexpr double kept = static_cast<double>(kSampleCount - 3);
    double sum = 0.0;
    for (std::size_t k = 1; k + 1 < distances.size(); ++k) sum += distances[k];
    const double mean = sum / kept;
    double squares = 0.0;
    for (std::size_t k = 1; k + 1 < distances.size(); ++k) squares += (distances[k] - mean) * (distances[k] - mean);
    return {mean, std::sqrt(squares / kept)};
}

SizeGate::SizeGate(const RectifiedMatchSettings& settings)
    : test_(chooseTest(settings)),
      radii_(settings.radii),
      tolerance_(settings.sizeTolerance),
      deviationFactor_(settings.deviationFactor) {
    std::ranges::stable_sort(radii_, AscendingNanLast());
}

const SizeGate::Test& SizeGate::chooseTest(const RectifiedMatchSettings& settings) {
    // With `plainRowGate`: without and with `radiusScoreGate`.
    static constexpr Test kPlainTests[2] = {
        {Window::open, kRatioAbove, false, false},
        {Window::open, kScoredRatioAbove, false, false},
    };
    // Otherwise: without and with `looseSizeGate`, and in each without and with `radiusScoreGate`.
    static constexpr Test kRimTests[2][2] = {
        {{Window::symmetric, 0.0, true, false}, {Window::none, 0.0, false, true}},
        {{Window::open, kRatioAbove, true, false}, {Window::closed, kScoredRatioAbove, false, true}},
    };
    if (settings.plainRowGate) return kPlainTests[settings.radiusScoreGate];
    return kRimTests[settings.looseSizeGate][settings.radiusScoreGate];
}

SizeGate::Range SizeGate::windowOf(double nominal) const {
    if (test_.window == Window::symmetric) return {nominal - nominal * tolerance_, nominal + nominal * tolerance_};
    return {nominal * (1.0 - kToleranceBelow * tolerance_), test_.ratioAbove * nominal};
}

bool SizeGate::isInWindow(double radius, double nominal) const {
    if (test_.window == Window::none) return true;
    const auto [least, largest] = windowOf(nominal);
    if (test_.window == Window::closed) return least <= radius && radius <= largest;
    return radius > least && radius < largest;
}

/// Sum of relative deviation and spread, in units of the tolerance.
double SizeGate::devianceOf(const MarkerSize& size, double nominal) const {
    return (std::abs(nominal - size.radius) / nominal + size.spread) / tolerance_;
}

bool SizeGate::passes(const MarkerSize& size) const {
    if (test_.limitsSpread && !(size.spread < deviationFactor_ * tolerance_)) return false;
    return std::ranges::any_of(radii_, [&](double nominal) {
        if (!isInWindow(size.radius, nominal)) return false;
        return !test_.scoresDeviance || devianceOf(size, nominal) < deviationFactor_;
    });
}

PairVerdict SizeGate::refusal(const MarkerSize& size) const {
    const double largestSpread = deviationFactor_ * tolerance_;
    if (test_.limitsSpread && !(size.spread < largestSpread))
        return {kNobody, kNobody, PairGate::spread, size.spread, -kUnbounded, largestSpread};
    PairVerdict window{kNobody, kNobody, PairGate::radius, size.radius}, score{kNobody, kNobody, PairGate::radiusScore};
    score.largest = deviationFactor_;
    double nearest = std::numeric_limits<double>::infinity();
    for (const double nominal : radii_) {
        if (!(nominal > 0)) continue;
        if (isInWindow(size.radius, nominal)) {
            score.measured = std::fmin(score.measured, devianceOf(size, nominal));
        } else if (const double off = std::abs(size.radius / nominal - 1); off < nearest) {
            nearest = off;
            const auto [least, largest] = windowOf(nominal);
            window.least = least;
            window.largest = largest;
        }
    }
    return std::isnan(score.measured) ? window : score;
}

}  // namespace kestrune
