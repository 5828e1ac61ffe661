// SPDX-License-Identifier: Apache-2.0
#include "matching/candidates.h"

#include <algorithm>
#include <cmath>

#include "parallel/parallel_loop.h"

namespace kestrune::matching {
namespace {

// Beyond these chi-squares, of 3 degrees of freedom and of 1, two ellipses are of two discs even where one of them is
// off by five of its standard deviations.
constexpr double kMostShape = 90, kMostRadius = 70;
// No row of markers is longer: bounds time and memory where thousands of markers are in one place.
constexpr std::size_t kMostOfOneMarker = 64;
constexpr double kCalibrationSlack = 0.2;  // px in each eye
// One left marker's candidates, ns at most: three hundred of 4 us.
constexpr std::int64_t kMostOfOneLeft = 1'200'000;

/// What a calibration may be off by beside the noise of the markers, and by how much the centres of discs may be off
/// the axes of their cones (discs up to 80 degrees), in phi.
double slackOf(const Sightline& line) {
    return kCalibrationSlack * line.pixel / std::sin(line.alpha) + 12 * line.shift;
}

bool mayAgree(const Sightline& left, const Sightline& right, const Scales& scales, double window) {
    const double sigma = scales.centre * std::hypot(left.sigmaPhi, right.sigmaPhi);
    if (!(std::abs(right.phi - left.phi) <= window * sigma + slackOf(left) + slackOf(right))) return false;
    // Both see one radius: its ratio to the distances, which are as the sines of the opposite angles.
    const double apart = left.logRho + right.logSine - right.logRho - left.logSine;
    const double variance = left.sigmaRho * left.sigmaRho + right.sigmaRho * right.sigmaRho;
    return apart * apart <= kMostRadius * scales.shape * scales.shape * variance;
}

/// Those whose planes and radii are nearest, where there are too many; in ascending order.
void keepNearest(const Sightline& left, const std::vector<Sightline>& rights, std::vector<int>& near) {
    if (near.size() <= kMostOfOneMarker) return;
    const auto misfit = [&](int j) {
        const Sightline& right = rights[static_cast<std::size_t>(j)];
        const double plane = (right.phi - left.phi) / (left.sigmaPhi + right.sigmaPhi);
        const double radius =
            (left.logRho + right.logSine - right.logRho - left.logSine) / (left.sigmaRho + right.sigmaRho);
        return plane * plane + radius * radius;
    };
    const auto isNearer = [&](int a, int b) { return std::make_pair(misfit(a), a) < std::make_pair(misfit(b), b); };
    const auto end = near.begin() + static_cast<std::ptrdiff_t>(kMostOfOneMarker);
    std::nth_element(near.begin(), end, near.end(), isNearer);
    near.erase(end, near.end());
    std::sort(near.begin(), near.end());
}

}  // namespace

std::vector<Candidate> candidatesOf(const Views& views, double baseline, const Scales& scales, double window) {
    const auto &lefts = views.lines[0], &rights = views.lines[1];
    double widest = 0;
    for (const Sightline& line : rights)
        widest = std::max(widest, window * scales.centre * line.sigmaPhi + slackOf(line));
    std::vector<std::vector<Candidate>> found(lefts.size());
    forEachInParallel(static_cast<int>(lefts.size()), kMostOfOneLeft, [&](int i) {
        const Sightline& left = lefts[static_cast<std::size_t>(i)];
        const double reach = window * scales.centre * left.sigmaPhi + slackOf(left) + widest;
        const auto first = std::lower_bound(rights.begin(), rights.end(), left.phi - reach,
                                            [](const Sightline& line, double phi) { return line.phi < phi; });
        std::vector<int> near;
        for (auto right = first; right != rights.end() && right->phi <= left.phi + reach; ++right)
            if (mayAgree(left, *right, scales, window)) near.push_back(static_cast<int>(right - rights.begin()));
        keepNearest(left, rights, near);
        for (const int j : near) {
            const Agreement agreement = agreementOf(left, rights[static_cast<std::size_t>(j)], baseline,
                                                    kMostShape * scales.shape * scales.shape);
            if (agreement.count > 0) found[static_cast<std::size_t>(i)].push_back({i, j, agreement});
        }
    });
    std::vector<Candidate> all;
    for (const auto& list : found) all.insert(all.end(), list.begin(), list.end());
    return all;
}

}  // namespace kestrune::matching
