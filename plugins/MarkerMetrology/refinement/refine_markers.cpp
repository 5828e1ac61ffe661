// SPDX-License-Identifier: Apache-2.0
#include <fmt/format.h>
#include <Eigen/Cholesky>
#include <algorithm>
#include <cmath>
#include <opencv2/imgproc.hpp>

#include "kestrune/MarkerMetrology/refinement.h"
#include "refinement/exposure_fit.h"
#include "refinement/first_guess.h"
#include "refinement/lens.h"
#include "refinement/rig_check.h"
#include "refinement/spot.h"

namespace kestrune {

using geometry::SmoothEllipse;

namespace refinement {
namespace {

// What the paths' ellipses are known to be off by, as far as an estimate keeps one: px, and a share of the marker's
// size for what could not be refined because there is something wrong with it.
constexpr double kUnrefinedSigma = 0.3, kUnrefinedShare = 0.03;
constexpr double kNotKnown = std::numeric_limits<double>::quiet_NaN();

[[noreturn]] void refuse(const std::string& text) {
    CV_Error(cv::Error::StsBadArg, text);
}

void check(const cv::Mat& image, const RefinementOptions& options) {
    if (image.empty() || image.dims != 2) refuse("image: is empty or not two-dimensional");
    if (image.depth() != CV_8U && image.depth() != CV_16U) refuse("image: has neither 8 nor 16 bits a channel");
    if (image.channels() != 1 && image.channels() != 3 && image.channels() != 4)
        refuse(fmt::format("image: has {} channels, not 1, 3 or 4", image.channels()));
    if (options.mostLightDegree < 0 || options.mostLightDegree > 2)
        refuse(fmt::format("mostLightDegree: {} is not 0, 1 or 2", options.mostLightDegree));
    if (options.recordSize.width < 0 || options.recordSize.height < 0)
        refuse(fmt::format("recordSize: {} x {} is no size", options.recordSize.width, options.recordSize.height));
    if (options.camera) requireCamera(*options.camera, "camera");
}

cv::Mat asGrey(const cv::Mat& image) {
    if (image.channels() == 1) return image;
    cv::Mat grey;
    cv::cvtColor(image, grey, image.channels() == 3 ? cv::COLOR_BGR2GRAY : cv::COLOR_BGRA2GRAY);
    return grey;
}

/// From the pixels of the record to those of the image; not finite where the lens has no place for it.
SmoothEllipse inImage(SmoothEllipse ellipse, const cv::Size& image, const RefinementOptions& options) {
    if (!options.recordSize.empty() && options.recordSize != image) {
        // A reduced image and the whole one agree at their outer edges.
        const double fx = static_cast<double>(image.width) / options.recordSize.width;
        const double fy = static_cast<double>(image.height) / options.recordSize.height;
        const double f = std::sqrt(fx * fy);
        ellipse.x = (ellipse.x + 0.5) * fx - 0.5, ellipse.y = (ellipse.y + 0.5) * fy - 0.5;
        ellipse.s *= f, ellipse.e1 *= f, ellipse.e2 *= f;
    }
    return options.camera ? distortedEllipse(ellipse, *options.camera) : ellipse;
}

MarkerEstimate unrefined(const SmoothEllipse& ellipse, RefinementStatus status) {
    MarkerEstimate estimate;
    estimate.status = status;
    estimate.centre = {ellipse.x, ellipse.y};
    estimate.majorHalfAxis = ellipse.majorHalfAxis(), estimate.minorHalfAxis = ellipse.minorHalfAxis();
    estimate.angle = ellipse.angle();
    estimate.inside = estimate.outside = estimate.blur = estimate.noise = estimate.residual = kNotKnown;
    const double sigma = kUnrefinedSigma + kUnrefinedShare * ellipse.s;
    for (int i = 0; i < 5; ++i) estimate.covariance(i, i) = sigma * sigma;
    return estimate;
}

/// The covariance of (x, y, s, e1, e2, inside, outside, blur), symmetric to the last bit: the inverse of the normal
/// equations, in units of the noise that the rim's residuals show.
cv::Matx<double, 8, 8> covarianceOf(const FittedMarker& fitted) {
    const int unknowns = kLight + termsOfDegree(fitted.outcome.model.lightDegree);
    const double scale = fitted.outcome.equations.rimCost / std::max(1.0, fitted.outcome.equations.rimTold - unknowns);
    const Eigen::MatrixXd inverse = Eigen::MatrixXd(fitted.outcome.equations.matrix.topLeftCorner(unknowns, unknowns))
                                        .llt()
                                        .solve(Eigen::MatrixXd::Identity(unknowns, unknowns));
    constexpr std::array<int, 8> kOrder = {kX, kY, kS, kE1, kE2, kIn, kOut, kBlur};
    cv::Matx<double, 8, 8> result;
    for (int a = 0; a < 8; ++a)
        for (int b = 0; b <= a; ++b)
            result(a, b) = result(b, a) =
                scale * inverse(kOrder[static_cast<std::size_t>(a)], kOrder[static_cast<std::size_t>(b)]);
    return result;
}

MarkerEstimate refined(const FittedMarker& fitted) {
    MarkerEstimate estimate;
    estimate.status = fitted.status;
    const DiscModel& model = fitted.outcome.model;
    const SmoothEllipse& e = model.ellipse;
    estimate.centre = {e.x, e.y};
    estimate.majorHalfAxis = e.majorHalfAxis(), estimate.minorHalfAxis = e.minorHalfAxis();
    estimate.angle = e.angle();
    estimate.inside = model.inside, estimate.outside = model.outside, estimate.blur = model.blur;
    estimate.lightDegree = model.lightDegree;
    estimate.pixels = fitted.pixels;
    estimate.noise = std::sqrt(fitted.noise.variance((model.inside + model.outside) / 2));
    estimate.residual =
        std::sqrt(fitted.outcome.equations.rimCost / std::max(1.0, fitted.outcome.equations.rimTold - double{kLight}));
    estimate.covariance = covarianceOf(fitted);
    return estimate;
}

}  // namespace
}  // namespace refinement

std::vector<MarkerEstimate> refineMarkers(const cv::Mat& image, const std::vector<Corner>& corners,
                                          const RefinementOptions& options) {
    using namespace refinement;
    check(image, options);
    const cv::Mat grey = asGrey(image);
    std::vector<std::optional<SmoothEllipse>> starts;
    starts.reserve(corners.size());
    for (const Corner& corner : corners) {
        std::optional<SmoothEllipse> start = ellipseOfRecord(corner);
        const bool hasOutline = start.has_value();
        if (!hasOutline) start = circleOfRecord(corner);
        if (start) start = inImage(*start, image.size(), options);
        if (start && !hasOutline) start = ellipseOfSpot(grey, *start);
        starts.push_back(start);
    }
    const std::vector<FittedMarker> fitted = fitExposure(grey, starts, options.mostLightDegree);
    std::vector<MarkerEstimate> result;
    result.reserve(corners.size());
    for (std::size_t i = 0; i < corners.size(); ++i) {
        const bool done = fitted[i].status == RefinementStatus::refined;
        if (!done && !starts[i]) starts[i] = inImage({corners[i].x, corners[i].y, 0, 0, 0}, image.size(), options);
        result.push_back(done ? refined(fitted[i]) : unrefined(*starts[i], fitted[i].status));
    }
    return result;
}

}  // namespace kestrune
