// SPDX-License-Identifier: Apache-2.0
#include "known_object.h"

#include <fmt/format.h>

#include <algorithm>

#include "csv_reader.h"
#include "files/inputs.h"

namespace kestrune::measure {
namespace {

// Two points lie on every pair of markers that is as far apart.
constexpr std::size_t kFewestMarkers = 3;

}  // namespace

std::vector<KnownMarker> readKnownObject(const std::string& file) {
    CsvReader csv(file);
    const bool capitals = !csv.has("x") && csv.has("X");
    const auto* const axes = capitals ? "XYZ" : "xyz";
    const std::string names[] = {{axes[0]}, {axes[1]}, {axes[2]}};
    const bool perAxis = !csv.has("sigma") && csv.has("sigmaX");
    if (perAxis)
        csv.require({names[0].c_str(), names[1].c_str(), names[2].c_str(), "sigmaX", "sigmaY", "sigmaZ"});
    else
        csv.require({names[0].c_str(), names[1].c_str(), names[2].c_str(), "sigma"});
    std::vector<KnownMarker> markers;
    while (csv.nextRow()) {
        KnownMarker& marker = markers.emplace_back();
        for (int k = 0; k < 3; ++k) marker.centre[k] = csv.number<double>(names[k].c_str());
        if (csv.has("radius") && !csv.field("radius").empty()) marker.radius = csv.number<double>("radius");
        if (marker.radius < 0) csv.problem(fmt::format("field 'radius': {} is below 0", marker.radius));
        marker.sigma =
            perAxis
                ? std::max({csv.number<double>("sigmaX"), csv.number<double>("sigmaY"), csv.number<double>("sigmaZ")})
                : csv.number<double>("sigma");
        if (marker.sigma <= 0)
            csv.problem(fmt::format("field 'sigma{}': {} is not above 0", perAxis ? "X..Z" : "", marker.sigma));
    }
    csv.finish();
    if (markers.size() < kFewestMarkers)
        throw InputError(file,
                         fmt::format("holds {} markers; an object needs {} at least", markers.size(), kFewestMarkers));
    return markers;
}

}  // namespace kestrune::measure
