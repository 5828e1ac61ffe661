// SPDX-License-Identifier: Apache-2.0
#include <algorithm>
#include <cmath>
#include <limits>
#include <opencv2/calib3d.hpp>
#include <tuple>

#include "MarkerExtractor/stereo/rectified_match.h"

namespace kestrune {

namespace {

constexpr double kInfinity = std::numeric_limits<double>::infinity();

/// Row differences of less than this have no sign: about what a contour's top and bottom scatter by.
constexpr double kRowSlack = 1.0;
/// The same under `looseSizeGate`, where the slack also grows with the row band.
constexpr double kLooseRowSlack = 2.0;
constexpr double kLooseRowShare = 0.5;
/// Of three comparisons of row differences, those that must agree in sign.
constexpr int kLeastRowVotes = 2;

/// Share of `sizeTolerance` by which a radius may lie below the nominal one. Above it there is far more room, because
/// the contour of a bright marker grows with exposure and blur.
constexpr double kToleranceBelow = 0.5;
constexpr double kRatioAbove = 1.8;
constexpr double kScoredRatioAbove = 1.95;

enum class Window { none, open, closed, symmetric };

/// One way to judge a size against a nominal radius.
struct SizeTest {
    Window window;
    double ratioAbove;    ///< of the windows `open` and `closed`
    bool limitsSpread;    ///< the spread alone is bounded
    bool scoresDeviance;  ///< the sum of relative deviation and spread is bounded
};

/// With `plainRowGate`: without and with `radiusScoreGate`.
constexpr SizeTest kPlainTests[2] = {
    {Window::open, kRatioAbove, false, false},
    {Window::open, kScoredRatioAbove, false, false},
};
/// Otherwise: without and with `looseSizeGate`, and in each without and with `radiusScoreGate`.
constexpr SizeTest kRimTests[2][2] = {
    {{Window::symmetric, 0.0, true, false}, {Window::none, 0.0, false, true}},
    {{Window::open, kRatioAbove, true, false}, {Window::closed, kScoredRatioAbove, false, true}},
};

const SizeTest& chooseSizeTest(const PairTest& test) {
    if (test.plainRowGate) return kPlainTests[test.radiusScoreGate];
    return kRimTests[test.looseSizeGate][test.radiusScoreGate];
}

bool insideWindow(const SizeTest& rule, double radius, double nominal, double tolerance) {
    const double least = nominal * (1.0 - kToleranceBelow * tolerance);
    const double largest = rule.ratioAbove * nominal;
    switch (rule.window) {
        case Window::none:
            return true;
        case Window::open:
            return radius > least && radius < largest;
        case Window::closed:
            return least <= radius && radius <= largest;
        case Window::symmetric:
            return radius > nominal - nominal * tolerance && radius < nominal + nominal * tolerance;
    }
    return false;
}

/// Whether two row differences have the same sense, or are both too small to have one. The product is narrowed first:
/// what vanishes in single precision counts as no sense at all.
bool sameSense(double a, double b, double sizeA, double sizeB, double slack) {
    return static_cast<float>(a * b) >= 0.0f || (slack > sizeA && slack > sizeB);
}

std::array<cv::Vec3d, kSampleCount> triangulate(const MarkerMatchRecord& left, const MarkerMatchRecord& right,
                                                const PairTest& test) {
    cv::Mat homogeneous;
    cv::triangulatePoints(test.leftProjection, test.rightProjection, left.samples, right.samples, homogeneous);
    std::array<cv::Vec3d, kSampleCount> points;
    for (int c = 0; c < kSampleCount; ++c) {
        const double w = homogeneous.at<double>(3, c);
        for (int r = 0; r < 3; ++r) points[static_cast<std::size_t>(c)][r] = homogeneous.at<double>(r, c) / w;
    }
    return points;
}

double rowSlack(const PairTest& test) {
    return test.looseSizeGate ? std::max(kLooseRowSlack, kLooseRowShare * test.maxRowDifference) : kRowSlack;
}

bool placesAgree(const MarkerMatchRecord& left, const MarkerMatchRecord& right, const PairTest& test) {
    if (!areasAgree(left.area, right.area, test.sizeTolerance)) return false;
    if (test.plainRowGate) return !(std::abs(left.y - right.y) >= test.maxRowDifference);
    return rowsAgree(left, right, test.maxRowDifference, rowSlack(test));
}

/// Why places do not agree. A marker's rows say more of where its partner is than its area: they are told first.
PairVerdict judgePlaces(const MarkerMatchRecord& left, const MarkerMatchRecord& right, const PairTest& test) {
    const double centre = left.y - right.y, band = test.maxRowDifference;
    const bool inBand = test.plainRowGate ? !(std::abs(centre) >= band) : std::abs(centre) < band;
    if (!inBand) return {-1, -1, PairGate::rows, std::abs(centre), -kInfinity, band};
    if (!areasAgree(left.area, right.area, test.sizeTolerance)) {
        const double ratio = left.area < right.area ? left.area / right.area : right.area / left.area;
        return {-1, -1, PairGate::area, ratio, 1.0 - std::abs(test.sizeTolerance)};
    }
    const double top = std::abs(left.samples[kTop].y - right.samples[kTop].y - centre);
    const double bottom = std::abs(left.samples[kBottom].y - right.samples[kBottom].y - centre);
    return {-1, -1, PairGate::rimRows, std::max(top, bottom), -kInfinity, std::min(band, rowSlack(test))};
}

/// The window of a nominal radius, for a window that has bounds.
std::pair<double, double> windowOf(const SizeTest& rule, double nominal, double tolerance) {
    if (rule.window == Window::symmetric) return {nominal - nominal * tolerance, nominal + nominal * tolerance};
    return {nominal * (1.0 - kToleranceBelow * tolerance), rule.ratioAbove * nominal};
}

/// Why a size fits no nominal radius: the window or the score of the one that it comes nearest to.
PairVerdict judgeSize(const MarkerSize& size, const PairTest& test) {
    const SizeTest& rule = chooseSizeTest(test);
    const double factor = test.deviationFactor, tolerance = test.sizeTolerance;
    if (rule.limitsSpread && !(size.spread < factor * tolerance))
        return {-1, -1, PairGate::spread, size.spread, -kInfinity, factor * tolerance};
    PairVerdict window{-1, -1, PairGate::radius, size.radius}, score{-1, -1, PairGate::radiusScore};
    score.largest = factor;
    double nearest = kInfinity;
    for (const double nominal : test.radii) {
        if (!(nominal > 0)) continue;
        if (insideWindow(rule, size.radius, nominal, tolerance)) {
            score.measured =
                std::fmin(score.measured, (std::abs(nominal - size.radius) / nominal + size.spread) / tolerance);
        } else if (const double off = std::abs(size.radius / nominal - 1); off < nearest) {
            nearest = off;
            std::tie(window.least, window.largest) = windowOf(rule, nominal, tolerance);
        }
    }
    return std::isnan(score.measured) ? window : score;
}

}  // namespace

bool areasAgree(double left, double right, double tolerance) {
    if (!std::isfinite(left) || !std::isfinite(right)) return false;  // the ratio to an infinite one would be a number
    const double ratio = left < right ? left / right : right / left;
    return ratio > 1.0 - std::abs(tolerance) && ratio < 1.0 + std::abs(tolerance);
}

bool rowsAgree(const MarkerMatchRecord& left, const MarkerMatchRecord& right, double maxRowDifference, double slack) {
    const double centre = left.y - right.y;
    const double top = left.samples[kTop].y - right.samples[kTop].y;
    const double bottom = left.samples[kBottom].y - right.samples[kBottom].y;
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

MarkerSize markerSize(const std::array<cv::Vec3d, kSampleCount>& samples) {
    std::array<double, kSampleCount - 1> distances;
    for (std::size_t c = 1; c < samples.size(); ++c) distances[c - 1] = cv::norm(samples[c] - samples[0]);
    std::sort(distances.begin(), distances.end(), ascendingNanLast<double>);

    constexpr double kept = static_cast<double>(kSampleCount - 3);
    double sum = 0.0;
    for (std::size_t k = 1; k + 1 < distances.size(); ++k) sum += distances[k];
    const double mean = sum / kept;
    double squares = 0.0;
    for (std::size_t k = 1; k + 1 < distances.size(); ++k) squares += (distances[k] - mean) * (distances[k] - mean);
    return {mean, std::sqrt(squares / kept)};
}

bool sizeFits(const MarkerSize& size, const PairTest& test) {
    const SizeTest& rule = chooseSizeTest(test);
    const double factor = test.deviationFactor;
    if (rule.limitsSpread && !(size.spread < factor * test.sizeTolerance)) return false;
    return std::any_of(test.radii.begin(), test.radii.end(), [&](double nominal) {
        if (!insideWindow(rule, size.radius, nominal, test.sizeTolerance)) return false;
        if (!rule.scoresDeviance) return true;
        return (std::abs(nominal - size.radius) / nominal + size.spread) / test.sizeTolerance < factor;
    });
}

std::optional<PairCandidate> testCandidatePair(const MarkerMatchRecord& left, const MarkerMatchRecord& right,
                                               const PairTest& test) {
    return testCandidatePair(left, right, test, nullptr);
}

std::optional<PairCandidate> testCandidatePair(const MarkerMatchRecord& left, const MarkerMatchRecord& right,
                                               const PairTest& test, PairVerdict* verdict) {
    if (!placesAgree(left, right, test)) {
        if (verdict != nullptr) *verdict = judgePlaces(left, right, test);
        return std::nullopt;
    }
    const std::array<cv::Vec3d, kSampleCount> samples = triangulate(left, right, test);
    const double depth = samples[kCentre][2];
    if (!(depth > 0.0 && depth > test.minDepth && depth < test.maxDepth)) {
        if (verdict != nullptr)
            *verdict = {-1, -1, PairGate::depth, depth, std::max(test.minDepth, 0.0), test.maxDepth};
        return std::nullopt;
    }
    const MarkerSize size = markerSize(samples);
    if (!sizeFits(size, test)) {
        if (verdict != nullptr) *verdict = judgeSize(size, test);
        return std::nullopt;
    }
    if (verdict != nullptr) *verdict = {-1, -1, PairGate::none};
    const cv::Vec3d point = test.fromRectified * samples[kCentre];
    return PairCandidate{-1, {point[0], point[1], point[2]}, size.radius};
}

}  // namespace kestrune
