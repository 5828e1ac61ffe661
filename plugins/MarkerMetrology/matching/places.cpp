// SPDX-License-Identifier: Apache-2.0
#include "matching/places.h"

#include <algorithm>
#include <array>
#include <cmath>

#include "matching/kernel_grid.h"

namespace kestrune::matching {
namespace {

constexpr double kLeastField = 1e-3, kFieldMargin = 1.1;  // of the angles from the baseline, radians; a ratio
// Share of markers whose planes are spread evenly; widths of the kernels of the others, in the planes' sigmas and as a
// share of their range.
constexpr double kEvenRows = 0.25, kRowWidth = 1.5, kNearRowWidth = 12, kFarRowWidth = 0.1;
// Along a plane: markers whose planes are within this share of the field say where markers are, by kernels of these
// widths; and as if there were one more that may be anywhere.
constexpr double kRowsAbout = 0.2, kAnywhere = 1;
constexpr std::array kColumnWidths = {0.07, 0.2};

/// Of phi: level rows crowd.
std::vector<double> rowDensities(const std::vector<Sightline>& lines) {
    double sigma = 0;
    for (const Sightline& line : lines) sigma += line.sigmaPhi;
    sigma /= static_cast<double>(lines.size());
    const double low = lines.front().phi, high = lines.back().phi, range = high - low + 20 * sigma;
    KernelGrid grid(low - 10 * sigma, high + 10 * sigma,
                    {kRowWidth * sigma, kNearRowWidth * sigma, kFarRowWidth * range});
    for (const Sightline& line : lines) grid.add(line.phi, 1);
    grid.smooth();
    std::vector<double> result;
    for (const Sightline& line : lines) {
        double sum = 0;
        for (std::size_t k = 0; k < KernelGrid::kWidths; ++k)
            sum += std::max(0.0, grid.value(k, line.phi) - grid.kernel(k, 0)) / KernelGrid::kWidths;
        result.push_back(std::log(kEvenRows / range + (1 - kEvenRows) * sum / static_cast<double>(lines.size() - 1)));
    }
    return result;
}

double biweight(double t) {
    const double rest = 1 - t * t;
    return rest > 0 ? 15. / 16. * rest * rest : 0;
}

/// Of alpha, near a marker's plane.
std::vector<double> columnDensities(const std::vector<Sightline>& lines) {
    const auto [least, most] = std::minmax_element(
        lines.begin(), lines.end(), [](const Sightline& a, const Sightline& b) { return a.alpha < b.alpha; });
    const double range = std::max(most->alpha - least->alpha, kLeastField) * kFieldMargin;
    const double rows = std::max((lines.back().phi - lines.front().phi) * std::sin(lines.front().alpha), kLeastField);
    const double field = std::sqrt(range * rows), about = kRowsAbout * field;
    std::vector<double> result;
    for (const Sightline& at : lines) {
        double weights = kAnywhere, sum = kAnywhere / range;
        const double reach = about / std::sin(at.alpha);  // lines are in the order of phi
        auto near = std::lower_bound(lines.begin(), lines.end(), at.phi - reach,
                                     [](const Sightline& line, double phi) { return line.phi < phi; });
        for (; near != lines.end() && near->phi <= at.phi + reach; ++near) {
            const Sightline& other = *near;
            const double weight = biweight((other.phi - at.phi) * std::sin(at.alpha) / about);
            if (&other == &at || !(weight > 0)) continue;
            weights += weight;
            for (const double share : kColumnWidths)
                sum += weight * biweight((other.alpha - at.alpha) / (share * field)) / (share * field) /
                       static_cast<double>(kColumnWidths.size());
        }
        result.push_back(std::log(sum / weights));
    }
    return result;
}

}  // namespace

std::vector<double> placeDensities(const std::vector<Sightline>& lines) {
    if (lines.size() < 2) return std::vector<double>(lines.size(), 0.0);
    std::vector<double> result = rowDensities(lines);
    const std::vector<double> columns = columnDensities(lines);
    for (std::size_t i = 0; i < result.size(); ++i) result[i] += columns[i];
    return result;
}

}  // namespace kestrune::matching
