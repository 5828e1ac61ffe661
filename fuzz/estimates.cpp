// SPDX-License-Identifier: Apache-2.0
#include "estimates.h"

#include <cmath>
#include <opencv2/calib3d.hpp>

#include "kestrune_geometry/smooth_ellipse.h"

namespace kestrune::fuzz {
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

MarkerEstimate drawnEstimate(Input& input) {
    MarkerEstimate e;
    e.status = input.flag() ? RefinementStatus::refined : RefinementStatus::notADisc;
    e.centre = {input.real(0, 60), input.real(0, 60)};
    e.majorHalfAxis = input.real(1, 20), e.minorHalfAxis = input.real(1, 20), e.angle = input.real(0, 4);
    const double sigma = input.real(0.001, 1);
    for (int k = 0; k < 8; ++k) e.covariance(k, k) = sigma * sigma;
    if (input.flag()) e.covariance(input.whole(0, 7), input.whole(0, 7)) = input.real(0, 1);
    return e;
}

void record(Record& to, const char* part, const MarkerEstimate& e) {
    to.numbers(part, e.status, e.lightDegree, e.pixels);
    to.numbers(part, e.centre.x, e.centre.y, e.majorHalfAxis, e.minorHalfAxis, e.angle);
    to.numbers(part, e.inside, e.outside, e.blur, e.noise, e.residual, e.covariance);
}

bool isEllipse(const MarkerEstimate& e) {
    for (const double value : {e.centre.x, e.centre.y, e.majorHalfAxis, e.minorHalfAxis, e.angle})
        if (!std::isfinite(value)) return false;
    return e.minorHalfAxis > 0 && e.majorHalfAxis >= e.minorHalfAxis && e.angle >= 0 && e.angle < CV_PI;
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

}  // namespace kestrune::fuzz
