// SPDX-License-Identifier: Apache-2.0
//
// Markers of both eyes to pairs with probabilities, records to plain estimates, and known objects among points:
// whatever a host hands over, it gets complete results or a refusal that names what is wrong.
#include <algorithm>
#include <random>

#include "match_promises.h"
#include "matching/known_object.h"

namespace kestrune::fuzz {
namespace {

void checkPlain(Input& input) {
    const MarkerEstimate e = plainEstimate(drawnCorner(input));
    require(e.status == RefinementStatus::noOutline && std::isnan(e.inside) && std::isnan(e.blur),
            "nothing is refined");
    if (std::isnan(e.majorHalfAxis)) {
        require(std::isnan(e.centre.x) && std::isnan(e.centre.y) && std::isnan(e.minorHalfAxis) && std::isnan(e.angle),
                "without an ellipse there are no numbers");
        return;
    }
    require(isEllipse(e), "a plain estimate is an ellipse");
    requireCovariance(e.ellipseCovariance());
}

std::vector<KnownMarker> drawnObject(Input& input, std::mt19937& random) {
    std::uniform_real_distribution<double> u(-100, 100);
    const double sigma = input.real(0.001, 1);
    const int shape = input.whole(0, 3);  // in space, on a plane, on a line, on a lattice
    const double pitch = input.real(1, 50);
    std::vector<KnownMarker> object;
    for (int k = input.whole(0, kMostMarkers); k > 0; --k) {
        cv::Vec3d place{u(random), u(random), u(random)};
        if (shape > 0) place[2] = 0;
        if (shape == 2) place[1] = 0;
        if (shape == 3) place = {pitch * (k % 5), pitch * (k / 5), 0.};
        object.push_back({place, 0, sigma});
    }
    return object;
}

/// Where the object is seen, among others.
std::vector<matching::SpacePoint> drawnPoints(const std::vector<KnownMarker>& object, Input& input,
                                              std::mt19937& random) {
    std::uniform_real_distribution<double> u(-100, 100);
    std::normal_distribution<double> normal;
    const cv::Matx33d turn = drawnTurn(input, 3);
    const double sigma = input.real(0.001, 3), probability = input.real(0.01, 1);
    const int strangers = input.whole(0, 20), mirrored = input.flag() ? 1 : -1;
    std::vector<matching::SpacePoint> points;
    const auto add = [&](cv::Vec3d place) {
        place[0] *= mirrored;
        matching::SpacePoint point;
        point.left = point.right = static_cast<int>(points.size());
        const cv::Vec3d at = turn * place + cv::Vec3d(10, 20, 900);
        for (int k = 0; k < 3; ++k) point.place[k] = at[k] + sigma * normal(random);
        point.covariance = sigma * sigma * Eigen::Matrix3d::Identity();
        point.probability = probability;
        points.push_back(point);
    };
    for (const KnownMarker& marker : object) add(marker.centre);
    for (int k = 0; k < strangers; ++k) add({u(random), u(random), u(random)});
    return points;
}

void spoil(std::vector<matching::SpacePoint>& points, Input& input) {
    matching::SpacePoint& point = input.oneOf(points);
    switch (input.whole(0, 5)) {
        case 0:
            point.place[input.whole(0, 2)] = input.real(-1000, 1000);
            break;
        case 1:
            point.covariance(input.whole(0, 2), input.whole(0, 2)) = input.real(-1, 1);
            break;
        case 2:
            point.logRadius = input.real(-3, 3), point.sigmaRadius = input.real(0, 0.1);
            break;
        case 3:
            point.probability = input.real(0, 1);
            break;
        case 4:
            point.left = input.whole(0, static_cast<int>(points.size()));
            break;
        default: {
            const matching::SpacePoint copy = point;
            points.push_back(copy);
        }
    }
}

void checkFit(const matching::ObjectFit& fit, std::size_t points, std::size_t markers) {
    require(fit.evidence.size() == points && fit.known.size() == points, "each point is told of");
    std::vector<char> isTaken(markers);
    for (std::size_t p = 0; p < points; ++p) {
        require(fit.evidence[p] >= 0 && std::isfinite(fit.evidence[p]), "evidence is a number, 0 or above");
        require(fit.found || fit.evidence[p] == 0, "an object that is not found is no evidence");
        const int known = fit.known[p];
        require(known >= -1 && known < static_cast<int>(markers), "known markers are places in the list");
        if (known < 0) continue;
        require(!isTaken[static_cast<std::size_t>(known)], "a known marker is one point");
        isTaken[static_cast<std::size_t>(known)] = 1;
    }
    if (!fit.found) return;
    require(!fit.ambiguous && !fit.mirrored && fit.seen >= 3 && std::isfinite(fit.logOdds), "what is found is found");
    require(
        (fit.rotation * fit.rotation.transpose() - Eigen::Matrix3d::Identity()).norm() < 1e-9 && fit.shift.allFinite(),
        "an object has a pose");
}

void checkObject(Input& input) {
    std::mt19937 random(static_cast<unsigned>(input.whole(0, 255)));
    std::vector<KnownMarker> object = drawnObject(input, random);
    std::vector<matching::SpacePoint> points = drawnPoints(object, input, random);
    for (int k = input.whole(0, 4); k > 0 && !points.empty(); --k) spoil(points, input);
    MatchOptions options;
    options.object = object;
    for (int k = input.whole(0, 2); k > 0; --k) spoil(options, input);
    object = options.object;
    std::erase_if(object, [](const KnownMarker& m) {  // what a match refuses
        return !std::isfinite(cv::norm(m.centre, cv::NORM_INF)) || !(m.sigma > 0) || !std::isfinite(m.sigma) ||
               !(m.radius >= 0) || !std::isfinite(m.radius);
    });
    matching::ObjectFit fit = matching::fitObject(points, object);
    checkFit(fit, points.size(), object.size());
    std::shuffle(object.begin(), object.end(), random);
    std::shuffle(points.begin(), points.end(), random);
    matching::ObjectFit mixed = matching::fitObject(points, object);
    require(fit.found == mixed.found && fit.ambiguous == mixed.ambiguous && fit.mirrored == mixed.mirrored &&
                fit.seen == mixed.seen && fit.logOdds == mixed.logOdds && fit.rotation == mixed.rotation,
            "an object is found in any order");
    // Of two points in one place either may be the marker.
    std::sort(fit.evidence.begin(), fit.evidence.end()), std::sort(mixed.evidence.begin(), mixed.evidence.end());
    require(fit.evidence == mixed.evidence, "evidence is the same in any order");
}

void checkOne(Input& input) {
    const int what = input.whole(0, 9);
    if (what == 8) return checkObject(input);
    if (what == 9) return checkPlain(input);
    const auto seed = static_cast<unsigned>(input.whole(0, 255));
    checkMatch(drawnCall(input), seed);
}

}  // namespace
}  // namespace kestrune::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    kestrune::fuzz::Input input(data, size);
    kestrune::fuzz::checkOne(input);
    return 0;
}
