// SPDX-License-Identifier: Apache-2.0
#include "match_knowledge.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <iterator>

#include "files/inputs.h"

namespace kestrune::measure {
namespace {

// Settings give the bounds of a radius, and what lies beyond two standard deviations is as rare as they mean it.
constexpr double kSigmasOfTolerance = 2;

bool isLength(double value) {
    return value > 0 && std::isfinite(value);
}

/// Depths of the left camera at which a point of its image has a depth between these two of the rectified camera.
std::array<double, 2> depthsOf(const CicrleConfigs& configs, const CircleMarkerExtractor& rig, cv::Size size) {
    if (configs.cornersRectified) return {configs.minDepth, configs.maxDepth};
    const cv::Matx33d toCamera = cv::Matx33d(rig.leftIntrinsic).inv(), rectification(rig.leftRectification);
    double least = 1e300, most = 0;
    for (const double x : {0.0, size.width - 1.0}) {
        for (const double y : {0.0, size.height - 1.0}) {
            const double ratio = (rectification * (toCamera * cv::Vec3d(x, y, 1)))[2];
            least = std::min(least, ratio);
            most = std::max(most, ratio);
        }
    }
    if (least <= 0 || configs.minDepth >= configs.maxDepth) return {};
    return {configs.minDepth / most, configs.maxDepth / least};
}

}  // namespace

const char* nameOf(Matching matching) {
    return matching == Matching::trusted ? "trusted" : "path";
}

Matching matchingNamed(const std::string& name) {
    for (const Matching matching : {Matching::path, Matching::trusted})
        if (name == nameOf(matching)) return matching;
    throw InputError("match", fmt::format("'{}' is neither 'trusted' nor 'path'", name));
}

void requireKnowledge(const MatchKnowledge& known) {
    for (const double radius : known.radii)
        if (!isLength(radius)) throw InputError("radii", fmt::format("{} is no radius above 0", radius));
    if (known.radiusTolerance && !isLength(*known.radiusTolerance))
        throw InputError("radius tolerance", fmt::format("{} is no share above 0", *known.radiusTolerance));
    if (known.depth) {
        const auto [nearest, farthest] = *known.depth;
        if (!isLength(nearest) || !isLength(farthest) || nearest >= farthest)
            throw InputError("depth range",
                             fmt::format("{} and {} are no depths above 0 in this order", nearest, farthest));
    }
    if (known.sure && !(*known.sure > 0.5 && *known.sure < 1))
        throw InputError("sure", fmt::format("{} is no probability above 0.5 and below 1", *known.sure));
    for (const KnownMarker& marker : known.object)
        if (!cv::checkRange(marker.centre) || !(marker.radius >= 0) || !isLength(marker.sigma))
            throw InputError("object", "holds a marker whose place, radius or sigma is none");
}

MatchOptions matchOptions(const MatchKnowledge& known) {
    MatchOptions options;
    options.radii = known.radii;
    options.object = known.object;
    if (known.radiusTolerance) options.radiusTolerance = *known.radiusTolerance;
    if (known.depth) options.depth = *known.depth;
    if (known.sure) options.sure = *known.sure;
    return options;
}

MatchOptions matchOptions(const MatchKnowledge& known, const CicrleConfigs& configs, const CircleMarkerExtractor& rig,
                          cv::Size size) {
    MatchOptions options = matchOptions(known);
    if (known.radii.empty()) {
        std::ranges::copy_if(configs.markerRadii, std::back_inserter(options.radii), isLength);
        if (configs.sizeTolerance > 0 && !known.radiusTolerance)
            options.radiusTolerance = configs.sizeTolerance / kSigmasOfTolerance;
    }
    if (!known.depth) options.depth = depthsOf(configs, rig, size);
    return options;
}

}  // namespace kestrune::measure
