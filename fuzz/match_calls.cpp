// SPDX-License-Identifier: Apache-2.0
#include "match_calls.h"

#include <algorithm>
#include <opencv2/calib3d.hpp>

#include "scenes.h"

namespace kestrune::fuzz {

namespace {

constexpr int kMostSpoiled = 6;

/// Some of the discs, in a frame of their own.
std::vector<KnownMarker> objectOf(const std::vector<scene::Disc>& discs, Input& input) {
    const cv::Matx33d turn = drawnTurn(input, 3);
    const bool hasRadii = input.flag();
    const double sigma = input.real(0.001, 2);
    std::vector<KnownMarker> object;
    for (std::size_t k = 0; k < discs.size(); k += static_cast<std::size_t>(input.whole(1, 4)))
        object.push_back({turn * discs[k].centre, hasRadii ? discs[k].radius : 0, sigma});
    return object;
}

MatchCall sceneCall(Input& input) {
    const auto trouble =
        static_cast<bench::Trouble>(input.whole(0, static_cast<int>(bench::troubleNames().size()) - 1));
    const auto seed = static_cast<std::uint64_t>(input.whole(0, 4095));
    bench::SceneKind kind = bench::drawKind(seed, trouble);
    kind.markers = input.whole(3, kMostMarkers);
    const bench::MatchingScene scene = bench::makeScene(kind, seed);
    MatchCall call{scene.markers, scene.rig, {}};
    if (input.flag()) call.options.radii = scene.radii;
    if (input.flag()) call.options.depth = scene.depth;
    if (input.flag()) call.options.object = objectOf(scene.discs, input);
    return call;
}

/// Alike markers in rows, on one line or in one place.
MatchCall crowdCall(Input& input) {
    MatchCall call;
    for (Camera& camera : call.rig.cameras)
        camera.matrix = (cv::Mat_<double>(3, 3) << 3000, 0, 1223.5, 0, 3000, 1023.5, 0, 0, 1);
    call.rig.rotation = cv::Mat(drawnTurn(input, 0.3)).clone();
    call.rig.translation = (cv::Mat_<double>(3, 1) << input.real(-400, -50), input.real(-50, 50), input.real(-50, 50));
    const int count = input.isOdd() ? input.whole(100, 2000) : input.whole(0, kMostMarkers);
    const int columns = std::max(1, input.whole(1, count + 1));
    const cv::Point2d right(input.real(0, 60), input.isOdd() ? input.real(-10, 10) : 0),
        down(input.isOdd() ? input.real(-10, 10) : 0, input.real(0, 60));
    MarkerEstimate marker = drawnEstimate(input);
    for (std::size_t eye = 0; eye < 2; ++eye) {
        const cv::Point2d first(input.real(0, kImage.width), input.real(0, kImage.height));
        const int missing = input.whole(0, 3);
        for (int k = missing; k < count; ++k) {
            marker.centre = first + k % columns * right + k / columns * down;
            call.markers[eye].push_back(marker);
        }
    }
    return call;
}

MatchCall anyCall(Input& input) {
    MatchCall call;
    call.rig = drawnRig(input);
    for (auto& list : call.markers) {
        for (int k = input.whole(0, 8); k > 0; --k) {
            const Corner corner = drawnCorner(input);
            list.push_back(input.flag() ? drawnEstimate(input) : plainEstimate(corner));
        }
    }
    return call;
}

void spoil(MarkerEstimate& e, Input& input) {
    constexpr double MarkerEstimate::*kNumbers[] = {&MarkerEstimate::majorHalfAxis, &MarkerEstimate::minorHalfAxis,
                                                    &MarkerEstimate::angle,         &MarkerEstimate::inside,
                                                    &MarkerEstimate::outside,       &MarkerEstimate::blur};
    switch (input.whole(0, 4)) {
        case 0:
            (input.flag() ? e.centre.x : e.centre.y) = input.real(0, kImage.width);
            break;
        case 1:
            e.*input.oneOf(kNumbers) = input.real(0.1, 50);
            break;
        case 2: {
            const int row = input.whole(0, 7), column = input.whole(0, 7);
            const double value = input.real(-1, 1);
            e.covariance(row, column) = value;
            if (input.flag()) e.covariance(column, row) = value;
            break;
        }
        case 3:
            e.covariance *= input.real(0, 10);
            break;
        default:
            e.covariance = input.real(0, 1) * cv::Matx<double, 8, 8>::eye();
    }
}

void spoil(std::vector<MarkerEstimate>& list, const std::vector<MarkerEstimate>& other, Input& input) {
    switch (input.whole(0, 4)) {
        case 0:
            list.erase(list.begin() + (&input.oneOf(list) - list.data()));
            break;
        case 1: {
            const MarkerEstimate copy = input.oneOf(list);
            list.insert(list.end(), static_cast<std::size_t>(input.isOdd() ? input.whole(1, 300) : 1), copy);
            break;
        }
        case 2:
            if (!other.empty()) list.push_back(input.oneOf(other));
            break;
        case 3: {
            const cv::Point2d by(input.real(-40, 40), input.real(-3, 3));
            for (MarkerEstimate& e : list) e.centre += by;
            break;
        }
        default:
            spoil(input.oneOf(list), input);
    }
}

void spoil(RigMatrices& rig, Input& input) {
    Camera& camera = input.oneOf(rig.cameras);
    switch (input.whole(0, 5)) {
        case 0:
            camera.matrix = input.spoiled(camera.matrix);
            break;
        case 1:
            camera.distortion = input.distortion();
            break;
        case 2:
            rig.rotation = input.flag() ? input.spoiled(rig.rotation) : cv::Mat(drawnTurn(input, 3)).clone();
            break;
        case 3:
            rig.translation = input.spoiled(rig.translation);
            break;
        case 4:
            rig.cameras[0] = rig.cameras[1];
            rig.rotation = cv::Mat::eye(3, 3, CV_64F);
            break;
        default:
            rig.uncertainty = drawnRig(input).uncertainty;
    }
}

void spoil(MatchCall& call, Input& input) {
    if (input.isOdd()) call.setUnit(input.real(0.001, 1000));
    for (std::size_t eye = 0; eye < 2; ++eye)
        for (int k = input.whole(0, kMostSpoiled); k > 0 && !call.markers[eye].empty(); --k)
            spoil(call.markers[eye], call.markers[1 - eye], input);
    if (input.isOdd()) call.markers[0].swap(call.markers[1]);
    for (int k = input.isOdd() ? input.whole(1, 2) : 0; k > 0; --k) spoil(call.rig, input);
    for (int k = input.flag() ? input.whole(0, 3) : 0; k > 0; --k) spoil(call.options, input);
}

}  // namespace

void MatchCall::setUnit(double unit) {
    rig.translation = unit * rig.translation;
    for (double& radius : options.radii) radius *= unit;
    for (double& depth : options.depth) depth *= unit;
    for (KnownMarker& marker : options.object) marker.centre *= unit, marker.radius *= unit, marker.sigma *= unit;
}

cv::Matx33d drawnTurn(Input& input, double most) {
    cv::Matx33d turn;
    cv::Rodrigues(cv::Vec3d(input.real(-most, most), input.real(-most, most), input.real(-most, most)), turn);
    return turn;
}

Corner drawnCorner(Input& input) {
    Corner corner = drawnRecord(input, kImage);
    corner.fitResidual = input.real(0, 0.1), corner.fitError = input.real(0, 1);
    return corner;
}

void spoil(MatchOptions& options, Input& input) {
    switch (input.whole(0, 6)) {
        case 0:
            options.radii.push_back(input.real(0.5, 20));
            break;
        case 1:
            options.radiusTolerance = input.real(0.0001, 0.5);
            break;
        case 2:
            options.depth = {input.real(0, 1000), input.real(500, 3000)};
            break;
        case 3:
            options.sure = input.real(0.5, 1);
            break;
        case 4:
            options.estimateSigmas = !options.estimateSigmas;
            break;
        default: {
            KnownMarker marker{{input.real(-200, 200), input.real(-200, 200), input.real(-200, 1000)}, 0, 0};
            if (!options.object.empty() && input.flag()) marker = input.oneOf(options.object);
            if (input.flag()) marker.radius = input.real(0, 20);
            if (marker.sigma == 0 || input.flag()) marker.sigma = input.real(0.001, 2);
            options.object.insert(options.object.end(), static_cast<std::size_t>(input.whole(1, 5)), marker);
        }
    }
}

MatchCall drawnCall(Input& input) {
    const int kind = input.whole(0, 7);
    MatchCall call = kind < 5 ? sceneCall(input) : kind < 7 ? crowdCall(input) : anyCall(input);
    spoil(call, input);
    return call;
}

}  // namespace kestrune::fuzz
