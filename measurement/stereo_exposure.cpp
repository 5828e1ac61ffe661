// SPDX-License-Identifier: Apache-2.0
#include "stereo_exposure.h"

#include <fmt/format.h>

#include <algorithm>
#include <limits>

#include "files/inputs.h"
#include "markers.h"

namespace kestrune::measure {
namespace {

constexpr double kUnknown = std::numeric_limits<double>::quiet_NaN();

using Pair = std::pair<Corner, Corner>;

cv::Point2d pixelOf(const Corner& corner) {
    return {corner.x, corner.y};
}

/// From the frame in which the library leaves normals to that of the points.
cv::Matx33d normalRotation(const CircleMarkerExtractor& extractor, const CicrleConfigs& configs) {
    if (configs.cornersRectified == configs.outputRectified) return cv::Matx33d::eye();
    const cv::Matx33d rectification(extractor.leftRectification);
    return configs.outputRectified ? rectification : rectification.t();
}

/// Looks no farther than the first row that differs.
bool isSame(const cv::Mat& a, const cv::Mat& b) {
    if (a.type() != b.type()) return false;
    for (int y = 0; y < a.rows; ++y)
        if (cv::norm(a.row(y), b.row(y), cv::NORM_INF) != 0) return false;
    return true;
}

InputError noContours(const std::string& origin, Path path) {
    return {origin, fmt::format("path {} finds no contours: stereo takes simple, radial or complex", nameOf(path))};
}

void requireSize(const cv::Mat& image, const std::string& name, cv::Size size) {
    if (image.size() == size) return;
    throw InputError(name, fmt::format("is {} x {} px, the calibration is for {} x {}", image.cols, image.rows,
                                       size.width, size.height));
}

/// Replaces points, normals and radii of the matcher, also in the records, by those of the discs, where there is one.
void measureDiscs(StereoResult& result, std::vector<Pair>& pairs, const RigMatrices& rig, const cv::Matx33d& turn) {
    for (std::size_t k = 0; k < pairs.size(); ++k) {
        StereoMarker& marker = result.markers[k];
        PairEstimate estimate;
        for (std::size_t eye = 0; eye < 2; ++eye)
            estimate.eyes[eye] = result.estimates[eye][static_cast<std::size_t>(marker.number[eye])];
        const DiscEstimate disc = measureDisc(estimate.eyes, rig);
        estimate.disc = turned(disc, turn);
        if (disc.found) {
            marker.point = estimate.disc.centre;
            marker.normal = estimate.disc.normal;
            marker.radius = disc.radius;
            for (Corner* corner : {&pairs[k].first, &pairs[k].second}) {
                corner->position = {disc.centre[0], disc.centre[1], disc.centre[2]};
                corner->normal = {disc.normal[0], disc.normal[1], disc.normal[2]};
                corner->markerRadius = disc.radius;
            }
        }
        marker.estimate = estimate;
    }
}

void tellPolarities(StereoResult& result, const CircleMarkerExtractor& extractor, const std::array<cv::Mat, 2>& images,
                    const Settings& settings) {
    Cameras lenses;
    if (deliversUndistorted(settings)) {
        lenses = {Camera{extractor.leftIntrinsic, extractor.leftDistortion},
                  Camera{extractor.rightIntrinsic, extractor.rightDistortion}};
    }
    for (StereoMarker& marker : result.markers)
        for (std::size_t eye = 0; eye < 2; ++eye)
            marker.polarity[eye] = polarityOf(images[eye], marker.rim[eye], lenses[eye]);
}

/// Matches by the path's matcher, and replaces its points by those of the discs where the markers were refined.
std::vector<Pair> matchOfPath(StereoResult& result, CircleMarkerExtractor& extractor,
                              const std::array<cv::Mat, 2>& images, const Settings& settings,
                              const RefinementInput* refinement) {
    std::vector<Point3_<double>> points;
    std::array<std::vector<cv::RotatedRect>, 2> rims;
    ExplainedMatch match;
    std::vector<Pair> pairs;
    if (refinement == nullptr) {
        pairs = explainStereoMarker3dPoints(images[0], images[1], extractor, points, rims[0], rims[1], settings.configs,
                                            match);
    } else {
        RefinedEyes eyes = refineEyes(extractor, images, refinement->grey, settings);
        pairs = explainStereoMatch(std::move(eyes.corners), extractor, points, settings.configs, match);
        rims = std::move(eyes.rims);
        result.estimates = std::move(eyes.estimates);
    }
    result.found = {rims[0].size(), rims[1].size()};
    for (std::size_t eye = 0; eye < 2; ++eye) result.unmatched[eye] = unmatchedOf(match, eye, rims[eye]);
    const cv::Matx33d turn = normalRotation(extractor, settings.configs);
    for (std::size_t k = 0; k < pairs.size(); ++k) {
        const auto& [left, right] = pairs[k];
        const auto& [i, j] = match.pairs[k];
        StereoMarker marker{{pixelOf(left), pixelOf(right)},
                            {rims[0][static_cast<std::size_t>(i)], rims[1][static_cast<std::size_t>(j)]},
                            {i, j},
                            {},
                            {points[k].x, points[k].y, points[k].z},
                            {kUnknown, kUnknown, kUnknown},
                            kUnknown};
        if (matchesConics(settings.path)) {
            marker.normal = turn * cv::Vec3d(left.normal.data());
            marker.radius = left.markerRadius;
        }
        result.markers.push_back(marker);
    }
    if (refinement != nullptr)
        measureDiscs(result, pairs, rigOfPixels(extractor, settings.configs, refinement->calibration), turn);
    return pairs;
}

/// All markers of a result, with those that are in doubt.
template <typename Do>
void forEachMarker(StereoResult& result, const Do& act) {
    for (StereoMarker& marker : result.markers) act(marker);
    if (!result.trusted) return;
    for (AmbiguousPair& pair : result.trusted->ambiguous) {
        act(pair.marker);
        for (StereoMarker& rival : pair.rivals) act(rival);
    }
}

}  // namespace

Settings readStereoSettings(const std::string& file, std::optional<Path> path) {
    if (path && !canUndistort(*path)) throw noContours(file, *path);
    return asStereo(readSettings(file, path, Use::stereo), file);
}

Settings asStereo(Settings settings, const std::string& origin) {
    CicrleConfigs& configs = settings.configs;
    if (!canUndistort(settings.path)) throw noContours(origin, settings.path);
    if (settings.path == Path::simple && configs.scale != 1) {
        throw InputError(
            origin,
            fmt::format("field 'scale' {}: path simple measures in the reduced image, stereo needs 1", configs.scale));
    }
    if (settings.path == Path::simple && std::ranges::none_of(configs.markerRadii, [](double r) { return r > 0; }))
        throw InputError(origin, "field 'markerRadii' names no radius: path simple needs at least one for stereo");
    configs.skipUndistort = configs.cornersRectified;
    return settings;
}

void requireExposure(const std::array<cv::Mat, 2>& images, const std::array<std::string, 2>& names, cv::Size size) {
    for (std::size_t eye = 0; eye < 2; ++eye) requireSize(images[eye], names[eye], size);
    if (isSame(images[0], images[1]))
        throw InputError(names[1], "shows the same as " + names[0] + ", pixel for pixel: two eyes never do");
}

std::array<cv::Mat, 2> readExposure(const std::string& left, const std::string& right, const ImageIntake& intake,
                                    cv::Size size, std::array<GreyImage, 2>* grey) {
    std::array<cv::Mat, 2> images;
    const std::array<const std::string*, 2> names = {&left, &right};
    for (std::size_t eye = 0; eye < 2; ++eye) {
        const cv::Mat read = decodeImage(*names[eye]);
        requireSize(read, *names[eye], size);  // before the other is opened
        images[eye] = inEightBits(read, intake.invert, intake.range);
        if (grey != nullptr) (*grey)[eye] = inAllBits(read, intake.range);
    }
    requireExposure(images, {left, right}, size);
    return images;
}

bool matchesConics(Path path) {
    return path == Path::radial || path == Path::complex;
}

StereoResult measureExposure(CircleMarkerExtractor& extractor, const std::array<cv::Mat, 2>& images,
                             const Settings& settings, double minShare, const RefinementInput* refinement,
                             std::vector<std::pair<Corner, Corner>>* records, const TrustedInput* trusted) {
    StereoResult result;
    result.refined = refinement != nullptr;
    const CicrleConfigs& configs = settings.configs;
    std::vector<Pair> pairs;
    if (trusted == nullptr) {
        pairs = matchOfPath(result, extractor, images, settings, refinement);
    } else {
        RefinedEyes eyes = refinement != nullptr ? refineEyes(extractor, images, refinement->grey, settings)
                                                 : findEyes(extractor, images, settings);
        pairs = matchTrusted(result, std::move(eyes), rigOfPixels(extractor, configs, trusted->calibration),
                             matchOptions(trusted->known, configs, extractor, images[0].size()),
                             normalRotation(extractor, configs));
    }
    forEachMarker(result, [&](StereoMarker& marker) {
        marker.residuals = residualsOf(extractor, configs, marker.pixel, marker.point);
    });
    if (settings.path == Path::complex) tellPolarities(result, extractor, images, settings);
    result.failure = objectionTo(result, configs, minShare);
    if (result.failure.empty()) result.doubt = doubtAbout(result);
    if (records != nullptr) *records = std::move(pairs);
    return result;
}

}  // namespace kestrune::measure
