// SPDX-License-Identifier: Apache-2.0
#include "MarkerExtractor/stereo/from_images.h"

#include <exception>
#include <optional>

#include "MarkerExtractor/camera/calibration_check.h"
#include "MarkerExtractor/camera/rectify.h"
#include "MarkerExtractor/front_door.h"
#include "MarkerExtractor/stereo/conic_match.h"
#include "MarkerExtractor/stereo/rectified_match.h"
#include "MarkerExtractor/stereo/space_points.h"
#include "logging/report_sites.h"
#include "parallel/parallel_loop.h"

namespace kestrune {

namespace {

using Points = std::vector<cv::Vec3d>;
using Result = std::vector<std::pair<Corner, Corner>>;

struct Images {
    const cv::Mat &left, &right;
};

/// What the host receives beside the pairs and rectangles.
struct Output {
    std::vector<Point3_<double>>& points;
    ExplainedMatch* explained;

    PairVerdicts* verdicts() const { return explained != nullptr ? &explained->verdicts : nullptr; }
};

/// What the extraction sees in one image.
struct EyeMarkers {
    bool isFound;
    std::vector<Corner> corners;
    std::vector<cv::RotatedRect> rects;
};

struct Exposure {
    EyeMarkers left, right;

    bool isFound() const { return left.isFound && right.isFound; }
    Corner& leftOf(const PlacedPair& pair) { return left.corners[static_cast<std::size_t>(pair.left)]; }
    Corner& rightOf(const PlacedPair& pair) { return right.corners[static_cast<std::size_t>(pair.right)]; }
};

bool isIncomplete(const Images& images, const CircleMarkerExtractor& e) {
    return images.left.empty() || images.right.empty() || e.leftIntrinsic.empty() || e.rightIntrinsic.empty() ||
           e.leftProjection.empty() || e.rightProjection.empty() || e.leftRectification.empty() ||
           e.rightRectification.empty();
}

/// Whether the chosen path fits conics.
bool carriesConics(const CicrleConfigs& configs) {
    return configs.useComplexExtract || configs.useRadialContours;
}

/// What the chosen branch reads. In single precision will do where only OpenCV reads it, since
/// `SetStereorectifyParam` takes either.
void checkCalibration(const CircleMarkerExtractor& e, const CicrleConfigs& configs) {
    if (carriesConics(configs)) {
        requireMatrix(e.leftRectification, 3, 3, "leftRectification");
        requireConicCalibration(e, configs.cornersRectified);
        return;
    }
    requireMatrixOfEitherPrecision(e.leftRectification, 3, 3, "leftRectification");
    requireMatrixOfEitherPrecision(e.leftProjection, 3, 4, "leftProjection");
    requireMatrixOfEitherPrecision(e.rightProjection, 3, 4, "rightProjection");
    if (configs.cornersRectified) return;
    requireMatrixOfEitherPrecision(e.leftIntrinsic, 3, 3, "leftIntrinsic");
    requireMatrixOfEitherPrecision(e.rightIntrinsic, 3, 3, "rightIntrinsic");
    requireMatrixOfEitherPrecision(e.rightRectification, 3, 3, "rightRectification");
    requireMatrixOfEitherPrecision(e.leftHomography, 3, 3, "leftHomography");
    requireMatrixOfEitherPrecision(e.rightHomography, 3, 3, "rightHomography");
}

/// The exception for the first member that the chosen branch cannot work with, if there is one.
std::exception_ptr gapOf(const CircleMarkerExtractor& e, const CicrleConfigs& configs) {
    try {
        checkCalibration(e, configs);
    } catch (const cv::Exception&) {
        return std::current_exception();
    }
    return nullptr;
}

EyeMarkers extractEye(const ExtractionCall& call, CircleMarkerExtractor& extractor) {
    EyeMarkers eye;
    eye.isFound = call.extract(extractor, eye.corners);
    eye.rects = extractor.markerRects;
    return eye;
}

/// Extracts both eyes, whatever the first one shows. Without markers nothing more of the calibration is read, and its
/// gaps are no reason to hide what the eyes saw. A calibration that is refused in the end is refused to an extractor as
/// it was.
Exposure extractBothEyes(const Images& images, CircleMarkerExtractor& extractor, const CicrleConfigs& configs) {
    const ExtractionCall left(images.left, extractor, 0, configs), right(images.right, extractor, 1, configs);
    const std::exception_ptr gap = gapOf(extractor, configs);
    std::optional<CircleMarkerExtractor> before;
    if (gap) before = extractor;
    Exposure exposure{extractEye(left, extractor), extractEye(right, extractor)};
    if (gap && exposure.isFound()) {
        extractor = *before;
        std::rethrow_exception(gap);
    }
    return exposure;
}

template <typename Match>
Points pointsOf(const std::vector<Match>& matches) {
    Points points;
    points.reserve(matches.size());
    for (const Match& match : matches) points.push_back(match.point);
    return points;
}

Points rotated(Points points, const cv::Matx33d& rotation) {
    for (cv::Vec3d& point : points) point = rotation * point;
    return points;
}

/// The same as OpenCV rounds it in a list.
void transformInPlace(Points& points, const cv::Mat& rotation) {
    if (!points.empty()) cv::transform(points, points, rotation);
}

std::vector<Point3_<double>> recordsOf(const Points& points) {
    std::vector<Point3_<double>> records;
    records.reserve(points.size());
    for (const cv::Vec3d& point : points) records.push_back(recordOf(point));
    return records;
}

/// Marks the corners of each pair as matched, places them in space, and copies them to the result.
///
/// @param positions  in step with the matches.
template <typename Match>
Result resultOf(Exposure& exposure, const std::vector<Match>& matches, const Points& positions, const Output& output) {
    Result result;
    result.reserve(matches.size());
    for (std::size_t k = 0; k < matches.size(); ++k) {
        Corner &left = exposure.leftOf(matches[k]), &right = exposure.rightOf(matches[k]);
        for (Corner* corner : {&left, &right}) {
            corner->matched = true;
            corner->position = eigenOf(positions[k]);
        }
        result.emplace_back(left, right);
        result.back().first.id = result.back().second.id = static_cast<std::int32_t>(k);
        if (output.explained != nullptr) output.explained->pairs.emplace_back(matches[k].left, matches[k].right);
    }
    return result;
}

std::vector<Corner> rectified(const std::vector<Corner>& corners, const RectifyingCamera& camera) {
    std::vector<Corner> result;
    rectifyCorners(corners, result, camera);
    return result;
}

std::vector<PlacedPair> constellationMatches(const Exposure& exposure, const CircleMarkerExtractor& e,
                                             const CicrleConfigs& configs, PairVerdicts* verdicts) {
    std::vector<Corner> left = exposure.left.corners, right = exposure.right.corners;
    if (!configs.cornersRectified) {  // free of lens distortion by now
        left = rectified(left, {e.leftIntrinsic, cv::Mat(), e.leftRectification, e.leftProjection, e.leftHomography});
        right =
            rectified(right, {e.rightIntrinsic, cv::Mat(), e.rightRectification, e.rightProjection, e.rightHomography});
    }
    const RectifiedMatchSettings settings = rectifiedMatchSettings(configs);
    if (!canMatchRectified(left, right, settings)) return {};
    const RectifiedRig rig{e.leftProjection, e.rightProjection, cv::Matx33d::eye()};
    return matchRectified(left, right, rig, settings, verdicts);
}

Result matchConstellation(Exposure& exposure, const CircleMarkerExtractor& e, const CicrleConfigs& configs,
                          Output& output) {
    const std::vector<PlacedPair> matches = constellationMatches(exposure, e, configs, output.verdicts());
    const Points inRectified = pointsOf(matches);
    const Points inCamera = rotated(inRectified, cv::Matx33d(e.leftRectification).t());
    output.points = recordsOf(configs.outputRectified ? inRectified : inCamera);
    Result result = resultOf(exposure, matches, configs.cornersRectified ? inRectified : inCamera, output);
    if (matches.empty()) reportWarning(report_sites::kNoStereoMatch);
    return result;
}

Result matchConics(Exposure& exposure, CircleMarkerExtractor& e, const CicrleConfigs& configs, Output& output) {
    const std::vector<DiscMatch> matches =
        matchDiscs(exposure.left.corners, exposure.right.corners, e, configs.cornersRectified,
                   conicMatchSettings(configs), output.verdicts());
    for (const DiscMatch& match : matches) {
        for (Corner* corner : {&exposure.leftOf(match), &exposure.rightOf(match)}) {
            corner->normal = eigenOf(match.normal);
            corner->markerRadius = match.radius;
        }
    }
    const Points positions = pointsOf(matches);  // the corners' never follow the change of frame
    Points points = positions;
    if (!configs.cornersRectified && configs.outputRectified) transformInPlace(points, e.leftRectification);
    if (configs.cornersRectified && !configs.outputRectified) transformInPlace(points, e.leftRectification.inv());
    output.points = recordsOf(points);
    return resultOf(exposure, matches, positions, output);
}

Result match(Exposure& exposure, CircleMarkerExtractor& extractor, const CicrleConfigs& configs, Output output) {
    if (!exposure.isFound()) {
        reportWarning(report_sites::kNoMarkersInOneFrame);
        return {};
    }
    output.points.clear();
    return carriesConics(configs) ? matchConics(exposure, extractor, configs, output)
                                  : matchConstellation(exposure, extractor, configs, output);
}

/// Either list of rectangles may be the extractor's own.
struct Rects {
    std::vector<cv::RotatedRect>&left, &right;
};

Result measure(const Images& images, CircleMarkerExtractor& extractor, const CicrleConfigs& configs, Rects rects,
               const Output& output) {
    if (isIncomplete(images, extractor)) return {};
    Exposure exposure = extractBothEyes(images, extractor, configs);
    rects.left = std::move(exposure.left.rects);
    rects.right = std::move(exposure.right.rects);
    return match(exposure, extractor, configs, output);
}

}  // namespace

std::vector<std::pair<Corner, Corner>> getStereoMarker3dPoints(const cv::Mat& leftImage, const cv::Mat& rightImage,
                                                               CircleMarkerExtractor& extractor,
                                                               std::vector<Point3_<double>>& points,
                                                               std::vector<cv::RotatedRect>& leftRects,
                                                               std::vector<cv::RotatedRect>& rightRects,
                                                               const CicrleConfigs& configs) {
    const ParallelCall call;
    return measure({leftImage, rightImage}, extractor, configs, {leftRects, rightRects}, {points, nullptr});
}

std::vector<std::pair<Corner, Corner>> explainStereoMarker3dPoints(
    const cv::Mat& leftImage, const cv::Mat& rightImage, CircleMarkerExtractor& extractor,
    std::vector<Point3_<double>>& points, std::vector<cv::RotatedRect>& leftRects,
    std::vector<cv::RotatedRect>& rightRects, const CicrleConfigs& configs, ExplainedMatch& explained) {
    const ParallelCall call;
    explained = {};
    return measure({leftImage, rightImage}, extractor, configs, {leftRects, rightRects}, {points, &explained});
}

std::vector<std::pair<Corner, Corner>> explainStereoMatch(std::array<std::vector<Corner>, 2> corners,
                                                          CircleMarkerExtractor& extractor,
                                                          std::vector<Point3_<double>>& points,
                                                          const CicrleConfigs& configs, ExplainedMatch& explained) {
    const ParallelCall call;
    explained = {};
    const auto eyeOf = [](std::vector<Corner>& found) {
        const bool isFound = !found.empty();
        return EyeMarkers{isFound, std::move(found), {}};
    };
    Exposure exposure{eyeOf(corners[0]), eyeOf(corners[1])};
    if (exposure.isFound()) checkCalibration(extractor, configs);
    return match(exposure, extractor, configs, {points, &explained});
}

}  // namespace kestrune
