// SPDX-License-Identifier: Apache-2.0
#include "full_size_check.h"

#include <fmt/format.h>

#include <algorithm>

namespace kestrune::measure {
namespace {

// Where the two agree they do so to a tenth of a pixel in noise; what is torn is off by this and up to a radius.
constexpr double kAgreementPx = 0.25;
constexpr std::size_t kMostIds = 8;

}  // namespace

std::string fullSizeWarning(CircleMarkerExtractor& extractor, const cv::Mat& image, int eye, const Camera& camera,
                            const Settings& settings, const std::vector<Marker>& markers) {
    if (settings.path != Path::radial || !settings.configs.refineAtFullSize || settings.configs.scale == 1) return {};
    Settings unrefined = settings;
    unrefined.configs.refineAtFullSize = false;
    std::size_t moved = 0, lost = 0;
    std::string ids;
    for (const Marker& there : findMarkers(extractor, image, eye, camera, unrefined)) {
        const auto apart = [&](const Marker& m) { return cv::norm(m.centre - there.centre); };
        const auto nearest = std::ranges::min_element(markers, {}, apart);
        if (nearest == markers.end() || apart(*nearest) > there.majorHalfAxis) {
            ++lost;
        } else if (apart(*nearest) > kAgreementPx && ++moved <= kMostIds) {
            ids += fmt::format("{}{}", ids.empty() ? ", ids " : ", ", nearest->id);
        }
    }
    if (moved + lost == 0) return {};
    if (moved > kMostIds) ids += ", ...";
    return fmt::format(
        "refineAtFullSize: against the search without it {} markers are off by more than {} px{} and {} are lost; "
        "faint "
        "markers in noise and blurred rims need false",
        moved, kAgreementPx, ids, lost);
}

}  // namespace kestrune::measure
