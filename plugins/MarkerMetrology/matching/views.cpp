// SPDX-License-Identifier: Apache-2.0
#include "matching/views.h"

#include <algorithm>
#include <cmath>
#include <tuple>

namespace kestrune::matching {
namespace {

// Neither lens nor calibration is known better than this, px, and it is not the same for all markers.
constexpr double kLeastSigma = 0.01;

MarkerEstimate withLeastSigma(MarkerEstimate estimate) {
    for (int k = 0; k < 5; ++k)
        if (estimate.covariance(k, k) > 0) estimate.covariance(k, k) += kLeastSigma * kLeastSigma;
    return estimate;
}

}  // namespace

Views viewsOf(const std::array<const std::vector<MarkerEstimate>*, 2>& markers, const EpipolarFrame& frame) {
    Views views;
    for (std::size_t eye = 0; eye < 2; ++eye) {
        std::vector<std::pair<Sightline, int>> lines;
        for (int i = 0; i < static_cast<int>(markers[eye]->size()); ++i)
            if (const auto line = sightlineOf(withLeastSigma((*markers[eye])[static_cast<std::size_t>(i)]), frame, eye))
                lines.push_back({*line, i});
        // All that decides of a marker, so that the order of equal ones cannot be seen.
        const auto key = [](const Sightline& s) {
            return std::make_tuple(s.phi, s.alpha, s.logRho, s.w.real(), s.w.imag(), s.sigmaPhi, s.sigmaAlpha,
                                   s.logDeterminant, s.information(0, 0), s.information(0, 1), s.information(0, 2),
                                   s.information(1, 1), s.information(1, 2), s.information(2, 2),
                                   std::isnan(s.contrast) ? 0.0 : s.contrast);
        };
        std::stable_sort(lines.begin(), lines.end(),
                         [&](const auto& a, const auto& b) { return key(a.first) < key(b.first); });
        for (const auto& [line, number] : lines) {
            if (!views.lines[eye].empty() && key(views.lines[eye].back()) == key(line)) {
                views.copies[eye].back().push_back(number);
                continue;
            }
            views.lines[eye].push_back(line);
            views.number[eye].push_back(number);
            views.copies[eye].emplace_back();
        }
    }
    return views;
}

}  // namespace kestrune::matching
