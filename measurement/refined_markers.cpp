// SPDX-License-Identifier: Apache-2.0
#include "refined_markers.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>

namespace kestrune::measure {
namespace {

constexpr double kNoEstimate = std::numeric_limits<double>::quiet_NaN();
// Of the covariance.
enum Place { kX, kY, kInside = 5, kOutside = 6, kBlur = 7 };

/// From levels of the image that was fitted to those of what was read.
void rescale(MarkerEstimate& estimate, const GreyImage& grey) {
    if (grey.level == 1 && grey.zero == 0) return;
    estimate.inside = grey.zero + grey.level * estimate.inside;
    estimate.outside = grey.zero + grey.level * estimate.outside;
    estimate.noise *= grey.level;
    for (const int level : {kInside, kOutside}) {
        for (int k = 0; k < estimate.covariance.cols; ++k) {
            estimate.covariance(level, k) *= grey.level;
            estimate.covariance(k, level) *= grey.level;
        }
    }
}

double known(double value) {
    return std::isfinite(value) ? value : kNoEstimate;
}

/// The square root of a variance; unknown where there is none.
template <int Place>
double sigmaAt(const MarkerEstimate& e) {
    const double variance = e.covariance(Place, Place);
    return variance > 0 ? known(std::sqrt(variance)) : kNoEstimate;
}

/// What only the fit tells.
template <auto Member>
double ofFit(const MarkerEstimate& e) {
    return e.isRefined() ? static_cast<double>(e.*Member) : kNoEstimate;
}

template <auto Member>
double ofAxes(const MarkerEstimate& e) {
    return std::isnan(sigmaAt<kX>(e)) ? kNoEstimate : known(axisSigmas(e).*Member);
}

}  // namespace

GreyImage inAllBits(const cv::Mat& image, const std::optional<GreyRange>& range) {
    if (image.depth() == CV_8U || image.depth() == CV_16U) return {image};
    RangeOfData own;
    if (!range) own.add(image);
    const GreyRange taken = range ? *range : own.range();
    return {toSixteenBits(image, taken), taken.low,
            (taken.high - taken.low) / std::numeric_limits<std::uint16_t>::max()};
}

RefinementOptions refinementOptions(cv::Size image, const Camera& camera, const Settings& settings) {
    RefinementOptions options;
    if (deliversUndistorted(settings)) options.camera = camera;
    if (settings.path == Path::simple && settings.configs.scale > 1)
        options.recordSize = {image.width / settings.configs.scale, image.height / settings.configs.scale};
    return options;
}

std::vector<MarkerEstimate> refineOn(const GreyImage& grey, const std::vector<Corner>& records,
                                     const RefinementOptions& options) {
    if (records.empty()) return {};
    std::vector<MarkerEstimate> estimates = refineMarkers(grey.image, records, options);
    for (MarkerEstimate& estimate : estimates) rescale(estimate, grey);
    return estimates;
}

std::vector<MarkerEstimate> refineDelivered(const GreyImage& grey, const std::vector<Corner>& records,
                                            const RefinementOptions& options) {
    std::vector<MarkerEstimate> estimates = refineOn(grey, records, options);
    if (options.camera)
        for (MarkerEstimate& estimate : estimates) estimate = undistorted(estimate, *options.camera);
    return estimates;
}

double degreesOf(double radians) {
    return std::fmod(radians * 180 / CV_PI, 180);
}

void applyEstimates(std::vector<Marker>& markers, const std::vector<MarkerEstimate>& estimates) {
    for (std::size_t i = 0; i < markers.size(); ++i) {
        const MarkerEstimate& e = estimates[i];
        if (!e.isRefined()) continue;
        markers[i].centre = e.centre;
        markers[i].majorHalfAxis = e.majorHalfAxis;
        markers[i].minorHalfAxis = e.minorHalfAxis;
        markers[i].angle = degreesOf(e.angle);
    }
}

std::string countsOf(const std::vector<MarkerEstimate>& estimates) {
    constexpr std::array kStatuses = {RefinementStatus::refined,     RefinementStatus::noOutline,
                                      RefinementStatus::leavesImage, RefinementStatus::touchesAnother,
                                      RefinementStatus::tooFaint,    RefinementStatus::notConverged,
                                      RefinementStatus::notADisc};
    std::string counts;
    for (const RefinementStatus status : kStatuses) {
        const auto count = std::ranges::count(estimates, status, &MarkerEstimate::status);
        if (count > 0 || status == RefinementStatus::refined)
            counts += fmt::format("{}{} {}", counts.empty() ? "" : ", ", count, nameOf(status));
    }
    return counts;
}

const std::vector<EstimateColumn>& estimateColumns() {
    using E = MarkerEstimate;
    static const std::vector<EstimateColumn> kColumns = {
        {"sigmaX", sigmaAt<kX>},
        {"sigmaY", sigmaAt<kY>},
        {"covarianceXY",
         [](const E& e) { return std::isnan(sigmaAt<kX>(e)) ? kNoEstimate : known(e.covariance(kX, kY)); }},
        {"sigmaMajor", ofAxes<&AxisSigmas::major>},
        {"sigmaMinor", ofAxes<&AxisSigmas::minor>},
        {"sigmaAngle", [](const E& e) { return ofAxes<&AxisSigmas::angle>(e) * 180 / CV_PI; }},
        {"inside", ofFit<&E::inside>},
        {"sigmaInside", sigmaAt<kInside>},
        {"outside", ofFit<&E::outside>},
        {"sigmaOutside", sigmaAt<kOutside>},
        {"blur", ofFit<&E::blur>},
        {"sigmaBlur", sigmaAt<kBlur>},
        {"lightDegree", ofFit<&E::lightDegree>},
        {"noise", ofFit<&E::noise>},
        {"residual", ofFit<&E::residual>},
        {"fitPixels", ofFit<&E::pixels>},
    };
    return kColumns;
}

}  // namespace kestrune::measure
