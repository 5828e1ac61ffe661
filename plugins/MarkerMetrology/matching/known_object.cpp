// SPDX-License-Identifier: Apache-2.0
#include "matching/known_object.h"

#include <algorithm>

#include "matching/object_search.h"

namespace kestrune::matching {
namespace {

// Nats from which an object is seen: by chance once in 20,000 exposures without it.
constexpr double kLeastOdds = 10;
// A share of the points is off, and no single point is beyond doubt.
constexpr double kOff = 0.01, kMostEvidence = 20;

void tellEvidence(const PoseFitter& fitter, const PoseFit& fit, std::size_t markers, const ObjectPoints& points,
                  ObjectFit& result) {
    std::vector<int> pointOf(markers, -1);
    for (const auto& match : fit.matches) {
        pointOf[static_cast<std::size_t>(match.marker)] = match.point;
        result.known[static_cast<std::size_t>(points[match.point].number)] = fitter.marker(match.marker).number;
    }
    std::vector<double> sums(points.all().size());
    for (int m = 0; m < static_cast<int>(markers); ++m) {
        points.forNear(fit.pose(fitter.marker(m).place), [&](int p) {
            sums[static_cast<std::size_t>(p)] += fitter.ratio(fit, m, p, pointOf[static_cast<std::size_t>(m)] == p);
        });
    }
    for (std::size_t p = 0; p < sums.size(); ++p)
        result.evidence[static_cast<std::size_t>(points.all()[p].number)] =
            std::min(std::log1p((1 - kOff) * sums[p]), kMostEvidence);
}

/// A list with an axis the wrong way round: of a shallow object, a layer would still be found.
bool isMirrored(std::vector<ObjectMarker> markers, const ObjectPoints& points, const PoseFit& best) {
    for (ObjectMarker& marker : markers) marker.place.x() *= -1;
    const std::vector<PoseFit> fits = ObjectSearch(markers, points).runAmong(best.matches);
    return !fits.empty() && !isRival(fits.front(), best);
}

}  // namespace

ObjectFit fitObject(const std::vector<SpacePoint>& points, const std::vector<KnownMarker>& object) {
    ObjectFit result;
    result.evidence.assign(points.size(), 0.0);
    result.known.assign(points.size(), -1);
    const std::vector<ObjectMarker> markers = orderedMarkers(object);
    if (markers.size() < 3) return result;
    std::vector<double> variances;
    variances.reserve(markers.size());
    for (const ObjectMarker& marker : markers) variances.push_back(marker.variance);
    const auto middle = variances.begin() + static_cast<std::ptrdiff_t>(variances.size() / 2);
    std::nth_element(variances.begin(), middle, variances.end());
    const ObjectPoints ordered(points, *middle);
    const std::vector<PoseFit> fits = ObjectSearch(markers, ordered).run();
    if (fits.empty()) return result;
    const PoseFit& best = fits.front();
    result.logOdds = best.logOdds;
    if (!(best.logOdds > kLeastOdds)) return result;
    result.rotation = best.pose.rotation;
    result.shift = best.pose.shift;
    result.seen = static_cast<int>(best.matches.size());
    result.mirrored = 2 * best.matches.size() < markers.size() && isMirrored(markers, ordered, best);
    result.ambiguous = !result.mirrored && std::any_of(fits.begin() + 1, fits.end(),
                                                       [&](const PoseFit& fit) { return isRival(best, fit); });
    result.found = !result.ambiguous && !result.mirrored;
    if (result.found) tellEvidence(PoseFitter(markers, ordered), best, markers.size(), ordered, result);
    return result;
}

}  // namespace kestrune::matching
