// SPDX-License-Identifier: Apache-2.0
//
// Markers of small images fitted to their grey levels, from records with any numbers, and what is made of the
// estimates: whatever a host hands over, it gets complete results or a refusal that names what is wrong.
#include <kestrune/MarkerMetrology/discs.h>

#include <Eigen/Eigenvalues>
#include <cmath>
#include <opencv2/calib3d.hpp>
#include <opencv2/imgproc.hpp>

#include "fuzz_input.h"
#include "kestrune_geometry/smooth_ellipse.h"
#include "promises.h"

namespace kestrune::fuzz {
namespace {

constexpr int kLargestSide = 64;

cv::Mat drawnImage(Input& input) {
    const bool isDeep = input.flag();
    const double unit = isDeep ? 257 : 1;
    cv::Mat image(input.whole(1, kLargestSide), input.whole(1, kLargestSide), CV_32F,
                  cv::Scalar(unit * input.whole(0, 255)));
    constexpr int kShift = 4;
    for (int k = input.whole(0, 4); k > 0; --k) {
        const cv::Point at(input.whole(-5, image.cols + 5), input.whole(-5, image.rows + 5));
        const cv::Size axes(input.whole(1, 25), input.whole(1, 25));
        const cv::Scalar level(unit * input.whole(-20, 275));
        if (input.whole(0, 3) > 0) {
            cv::ellipse(image, at * (1 << kShift) + cv::Point(input.whole(0, 15), 0), axes * (1 << kShift),
                        input.whole(0, 180), 0, 360, level, cv::FILLED, cv::LINE_8, kShift);
        } else {
            cv::rectangle(image, cv::Rect(at, axes), level, cv::FILLED);
        }
    }
    if (input.flag()) cv::GaussianBlur(image, image, {}, input.isOdd() ? 7 : 0.4 * input.whole(1, 4));
    if (const int noise = input.isOdd() ? 128 : input.whole(0, 8); noise > 0) {
        cv::Mat added(image.size(), CV_32F);
        cv::RNG(static_cast<std::uint64_t>(noise)).fill(added, cv::RNG::NORMAL, 0, noise * (input.flag() ? 1 : unit));
        image += added;
    }
    const int channels = input.isOdd() ? input.whole(1, 4) : 1;
    cv::merge(std::vector<cv::Mat>(static_cast<std::size_t>(channels), image), image);
    image.convertTo(image, input.isOdd() ? input.whole(0, 6) : isDeep ? CV_16U : CV_8U);
    if (input.isOdd()) image.release();
    return image;
}

Corner drawnRecord(Input& input, const cv::Size& size) {
    Corner c;
    c.x = input.real(-5, size.width + 5), c.y = input.real(-5, size.height + 5);
    if (input.flag()) {
        const cv::Point2d at =
            input.isOdd() ? cv::Point2d(input.real(-5, 70), input.real(-5, 70)) : cv::Point2d(c.x, c.y);
        c.ellipse = {cv::Point2f(at), {input.single(1, 50), input.single(1, 50)}, input.single(-180, 180)};
    }
    if (input.flag()) c.area = input.real(0, 2000);
    if (input.flag()) {
        c.conicValid = true;
        const auto ellipse =
            geometry::SmoothEllipse::of({c.x, c.y}, input.real(1, 25), input.real(1, 25), input.real(0, 4));
        c.conic = geometry::conicOf(geometry::matrixOf(ellipse));
        if (input.isOdd()) input.oneOf(c.conic) = input.real(-1, 1);
    }
    for (int k = input.flag() ? input.whole(0, 6) : 0; k > 0; --k)
        c.contour.emplace_back(input.single(0, size.width), input.single(0, size.height));
    return c;
}

std::vector<Corner> drawnRecords(Input& input, const cv::Size& size) {
    std::vector<Corner> corners;
    for (int k = input.whole(0, 5); k > 0; --k) {
        if (corners.empty() || !input.isOdd()) {
            corners.push_back(drawnRecord(input, size));
        } else {
            corners.push_back(corners.back());
        }
    }
    return corners;
}

Camera drawnCamera(Input& input) {
    Camera camera;
    camera.matrix = (cv::Mat_<double>(3, 3) << input.real(20, 400), 0, input.real(0, 60), 0, input.real(20, 400),
                     input.real(0, 60), 0, 0, 1);
    if (input.isOdd()) camera.matrix = input.spoiled(camera.matrix);
    if (input.flag()) camera.distortion = input.distortion();
    for (int k = 0; k < static_cast<int>(camera.distortion.total()) && camera.distortion.type() == CV_64F; ++k)
        if (input.flag()) camera.distortion.at<double>(k) = input.real(-1, 1);
    return camera;
}

RigMatrices drawnRig(Input& input) {
    RigMatrices rig;
    rig.cameras = {drawnCamera(input), drawnCamera(input)};
    cv::Mat turn;
    cv::Rodrigues(cv::Vec3d(input.real(-0.2, 0.2), input.real(-0.2, 0.2), input.real(-0.2, 0.2)), turn);
    rig.rotation = input.isOdd() ? input.spoiled(turn) : turn;
    rig.translation = (cv::Mat_<double>(3, 1) << input.real(-100, -1), input.real(-9, 9), input.real(-9, 9));
    if (input.isOdd()) rig.translation = input.spoiled(rig.translation);
    if (input.flag())
        for (auto& list : rig.uncertainty.cameras) input.oneOf(list) = input.real(0, 1);
    if (input.flag())
        for (auto& list : rig.uncertainty.distortions) input.oneOf(list) = input.real(0, 0.1);
    if (input.flag()) input.oneOf(rig.uncertainty.rotation) = input.real(0, 0.01);
    if (input.flag()) input.oneOf(rig.uncertainty.translation) = input.real(0, 1);
    return rig;
}

/// @returns whether the call answered; else it has refused its input.
template <typename Call>
bool isAnswered(const Call& call) {
    try {
        call();
    } catch (const cv::Exception& e) {
        require(e.code == cv::Error::StsBadArg, "bad input is refused as such");
        return false;
    }
    return true;
}

void record(Record& to, const MarkerEstimate& e) {
    to.numbers("status", e.status, e.lightDegree, e.pixels);
    to.numbers("ellipse", e.centre.x, e.centre.y, e.majorHalfAxis, e.minorHalfAxis, e.angle);
    to.numbers("levels", e.inside, e.outside, e.blur, e.halo, e.noise, e.residual);
    to.numbers("covariance", e.covariance);
}

Record recordOf(const std::vector<MarkerEstimate>& list) {
    Record result;
    for (const MarkerEstimate& e : list) record(result, e);
    return result;
}

template <int n>
void requireCovariance(const cv::Matx<double, n, n>& c) {
    Eigen::Matrix<double, n, n> correlation;
    for (int a = 0; a < n; ++a) {
        require(std::isfinite(c(a, a)) && c(a, a) > 0, "variances are above 0");
        for (int b = 0; b < n; ++b) {
            require(c(a, b) == c(b, a), "a covariance is symmetric");
            correlation(a, b) = c(a, b) / std::sqrt(c(a, a)) / std::sqrt(c(b, b));
        }
    }
    const Eigen::SelfAdjointEigenSolver<Eigen::Matrix<double, n, n>> solver(correlation, Eigen::EigenvaluesOnly);
    require(solver.eigenvalues()[0] > -1e-6, "a covariance is positive semi-definite");
}

bool isEllipse(const MarkerEstimate& e) {
    for (const double value : {e.centre.x, e.centre.y, e.majorHalfAxis, e.minorHalfAxis, e.angle})
        if (!std::isfinite(value)) return false;
    return e.minorHalfAxis > 0 && e.majorHalfAxis >= e.minorHalfAxis && e.angle >= 0 && e.angle < CV_PI;
}

void requireComplete(const MarkerEstimate& e) {
    require(*nameOf(e.status) != '\0', "a status has a name");
    const AxisSigmas sigmas = axisSigmas(e);
    require(std::isnan(e.covariance(2, 2)) == std::isnan(sigmas.major), "no sigma without a covariance");
    require(sigmas.angle >= 0 && sigmas.angle < 0.91, "an angle is known to half a turn");
    if (!e.isRefined()) {
        require(std::isnan(e.inside) && std::isnan(e.blur), "no light without a fit");
        return;
    }
    require(isEllipse(e), "a refined marker is an ellipse");
    for (const double value : {e.inside, e.outside, e.noise, e.residual})
        require(std::isfinite(value), "a refined marker has levels");
    require(e.inside != e.outside && e.blur >= 0.2 && e.blur <= 8, "a refined marker has contrast and blur");
    requireCovariance(e.covariance);
}

std::vector<MarkerEstimate> checkFits(Input& input) {
    const cv::Mat image = drawnImage(input);
    std::vector<Corner> corners = drawnRecords(input, image.size());
    RefinementOptions options;
    if (input.flag()) options.camera = drawnCamera(input);
    if (input.flag()) options.recordSize = {input.integer(0, 80), input.integer(0, 80)};
    options.mostLightDegree = input.integer(0, 2);

    const Circumstances circumstances{.manyThreads = input.flag(), .imagesAreWindows = input.flag()};
    std::vector<MarkerEstimate> list, same;
    setThreads({});
    if (!isAnswered([&] { list = refineMarkers(image, corners, options); })) {
        corners.clear();
        require(!isAnswered([&] { refineMarkers(image, corners, options); }), "it is refused before anything is done");
        return {};
    }
    require(list.size() == corners.size(), "an estimate for each record");
    for (const MarkerEstimate& e : list) requireComplete(e);
    setThreads(circumstances);
    const cv::Mat window = circumstances.imageOf(image);
    std::reverse(corners.begin(), corners.end());
    same = refineMarkers(window, corners, options);
    std::reverse(same.begin(), same.end());
    requireSame(recordOf(list), recordOf(same), "the same in any order, by any number of threads, in a window");

    for (std::size_t i = 0; i < list.size(); ++i) {
        Corner& c = corners[corners.size() - 1 - i];
        updateCorner(c, list[i]);
        require(!list[i].isRefined() || (c.conicValid && std::isfinite(c.fitResidual) && c.contour.size() >= 48),
                "a refined marker has a conic and a contour");
    }
    return list;
}

/// Estimates of the fit, or of a host.
MarkerEstimate drawnEstimate(Input& input, const std::vector<MarkerEstimate>& list) {
    if (!list.empty() && input.flag())
        return list[static_cast<std::size_t>(input.whole(0, static_cast<int>(list.size()) - 1))];
    MarkerEstimate e;
    e.status = input.flag() ? RefinementStatus::refined : RefinementStatus::notADisc;
    e.centre = {input.real(0, 60), input.real(0, 60)};
    e.majorHalfAxis = input.real(1, 20), e.minorHalfAxis = input.real(1, 20), e.angle = input.real(0, 4);
    const double sigma = input.real(0.001, 1);
    for (int k = 0; k < 8; ++k) e.covariance(k, k) = sigma * sigma;
    if (input.flag()) e.covariance(input.whole(0, 7), input.whole(0, 7)) = input.real(0, 1);
    return e;
}

void checkDisc(const DiscEstimate& disc) {
    if (!disc.found) return;
    require(std::isfinite(cv::norm(disc.centre)) && std::abs(cv::norm(disc.normal) - 1) < 1e-9 && disc.radius > 0,
            "a disc has centre, normal and radius");
    require(cv::norm(disc.tangents[0].cross(disc.tangents[1]) - disc.normal) < 1e-9, "tangents are a frame");
    require(disc.chiSquare >= 0 && std::isfinite(disc.chiSquare), "a disc has residuals");
    requireCovariance(disc.covariance);
    require(std::isfinite(cv::norm(disc.calibrationCovariance)), "a disc knows what the calibration adds");
    require(disc.radiusSigma() > 0 && std::isfinite(cv::norm(disc.normalCovariance())), "a disc has sigmas");
}

void checkOne(Input& input) {
    const std::vector<MarkerEstimate> list = checkFits(input);
    for (int k = input.whole(0, 2); k > 0; --k) {
        const Camera camera = drawnCamera(input);
        const MarkerEstimate e = drawnEstimate(input, list);
        MarkerEstimate back;
        if (!isAnswered([&] { back = undistorted(e, camera); })) continue;
        axisSigmas(back);
        require(back.status == e.status || back.status == RefinementStatus::notConverged, "a lens refines nothing");
        Corner c;
        updateCorner(c, back);
        require(!c.conicValid || (std::isfinite(c.x) && std::isfinite(c.y)), "no place without a number");
    }
    if (!input.flag()) return;
    const std::array<MarkerEstimate, 2> eyes = {drawnEstimate(input, list), drawnEstimate(input, list)};
    const RigMatrices rig = drawnRig(input);
    DiscEstimate disc;
    if (isAnswered([&] { disc = measureDisc(eyes, rig); })) checkDisc(disc);
}

}  // namespace
}  // namespace kestrune::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    kestrune::fuzz::Input input(data, size);
    kestrune::fuzz::checkOne(input);
    return 0;
}
