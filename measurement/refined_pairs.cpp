// SPDX-License-Identifier: Apache-2.0
#include "refined_pairs.h"

#include <algorithm>
#include <cmath>
#include <iterator>
#include <limits>

namespace kestrune::measure {
namespace {

constexpr double kNoPairNumber = std::numeric_limits<double>::quiet_NaN();
constexpr double kDegree = CV_PI / 180;
// Of a disc's covariance.
constexpr int kTurns = 3;

cv::RotatedRect rectOf(const MarkerEstimate& e) {
    return {cv::Point2f(e.centre), cv::Size2f(cv::Size2d(2 * e.majorHalfAxis, 2 * e.minorHalfAxis)),
            static_cast<float>(e.angle / kDegree)};
}

template <int Axis>
double sigmaOf(const PairEstimate& pair) {
    return pair.disc.found ? std::sqrt(pair.disc.covariance(Axis, Axis)) : kNoPairNumber;
}

template <int Row, int Column>
double covarianceOf(const PairEstimate& pair) {
    return pair.disc.found ? pair.disc.covariance(Row, Column) : kNoPairNumber;
}

}  // namespace

RefinedEyes findEyes(CircleMarkerExtractor& extractor, const std::array<cv::Mat, 2>& images, const Settings& settings) {
    RefinedEyes eyes;
    for (std::size_t eye = 0; eye < 2; ++eye) {
        ExtractCircleMarker(images[eye], extractor, eyes.corners[eye], static_cast<int>(eye), settings.configs);
        eyes.rims[eye] = extractor.markerRects;
        std::ranges::transform(eyes.corners[eye], std::back_inserter(eyes.estimates[eye]), plainEstimate);
    }
    return eyes;
}

RefinedEyes refineEyes(CircleMarkerExtractor& extractor, const std::array<cv::Mat, 2>& images,
                       const std::array<GreyImage, 2>& grey, const Settings& settings) {
    RefinedEyes eyes;
    for (std::size_t eye = 0; eye < 2; ++eye) {
        ExtractCircleMarker(images[eye], extractor, eyes.corners[eye], static_cast<int>(eye), settings.configs);
        eyes.rims[eye] = extractor.markerRects;
        const Camera camera = eye == 0 ? Camera{extractor.leftIntrinsic, extractor.leftDistortion}
                                       : Camera{extractor.rightIntrinsic, extractor.rightDistortion};
        const RefinementOptions options = refinementOptions(images[eye].size(), camera, settings);
        eyes.estimates[eye] = refineDelivered(grey[eye], eyes.corners[eye], options);
        for (std::size_t i = 0; i < eyes.corners[eye].size(); ++i) {
            const MarkerEstimate& estimate = eyes.estimates[eye][i];
            updateCorner(eyes.corners[eye][i], estimate);
            if (estimate.isRefined()) eyes.rims[eye][i] = rectOf(estimate);
        }
    }
    return eyes;
}

RigMatrices rigOfPixels(const CircleMarkerExtractor& extractor, const CicrleConfigs& configs,
                        const RigUncertainty& uncertainty) {
    RigMatrices rig;
    if (!configs.cornersRectified) {
        rig.cameras = {Camera{extractor.leftIntrinsic, extractor.leftDistortion},
                       Camera{extractor.rightIntrinsic, extractor.rightDistortion}};
        rig.uncertainty = uncertainty;
        rig.rotation = extractor.rotation;
        rig.translation = extractor.translation;
        return rig;
    }
    const cv::Matx34d right(extractor.rightProjection);
    rig.cameras = {Camera{extractor.leftProjection.colRange(0, 3).clone(), {}},
                   Camera{extractor.rightProjection.colRange(0, 3).clone(), {}}};
    rig.rotation = cv::Mat::eye(3, 3, CV_64F);
    rig.translation = cv::Mat(right.get_minor<3, 3>(0, 0).inv() * right.col(3));
    return rig;
}

DiscEstimate turned(DiscEstimate disc, const cv::Matx33d& turn) {
    if (!disc.found) return disc;
    disc.centre = turn * disc.centre;
    disc.normal = turn * disc.normal;
    for (cv::Vec3d& tangent : disc.tangents) tangent = turn * tangent;
    disc.calibrationCovariance = turn * disc.calibrationCovariance * turn.t();
    // The turns of the normal are about its own tangents, and the radius has no direction.
    cv::Matx<double, 6, 6> whole = cv::Matx<double, 6, 6>::eye();
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j) whole(i, j) = turn(i, j);
    disc.covariance = whole * disc.covariance * whole.t();
    return disc;
}

double normalSigma(const DiscEstimate& disc) {
    return std::sqrt(disc.covariance(kTurns, kTurns) + disc.covariance(kTurns + 1, kTurns + 1)) / kDegree;
}

const char* statusOf(const PairEstimate& pair, std::size_t eye) {
    return pair.refined ? nameOf(pair.eyes[eye].status) : "not refined";
}

const char* pointSourceOf(const PairEstimate& pair) {
    return pair.disc.found ? "disc" : "matcher";
}

const std::vector<PairColumn>& pairColumns() {
    using P = PairEstimate;
    static const std::vector<PairColumn> kColumns = {
        {"sigmaX", sigmaOf<0>},
        {"sigmaY", sigmaOf<1>},
        {"sigmaZ", sigmaOf<2>},
        {"covarianceXY", covarianceOf<0, 1>},
        {"covarianceXZ", covarianceOf<0, 2>},
        {"covarianceYZ", covarianceOf<1, 2>},
        {"sigmaNormal", [](const P& p) { return p.disc.found ? normalSigma(p.disc) : kNoPairNumber; }},
        {"sigmaRadius", [](const P& p) { return p.disc.found ? p.disc.radiusSigma() : kNoPairNumber; }},
        {"chiSquare", [](const P& p) { return p.disc.found ? p.disc.chiSquare : kNoPairNumber; }},
    };
    return kColumns;
}

}  // namespace kestrune::measure
