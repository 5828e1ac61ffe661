// SPDX-License-Identifier: Apache-2.0
#include <exception>
#include <optional>

#include "MarkerExtractor/camera/calibration_check.h"
#include "MarkerExtractor/front_door.h"
#include "MarkerExtractor/stereo/conic_match.h"
#include "MarkerExtractor/stereo/rectified_match.h"
#include "MarkerExtractor/stereo/space_points.h"
#include "kestrune/MarkerExtractor.h"
#include "logging/report_sites.h"

namespace kestrune {

namespace {

using Points = std::vector<Point3_<double>>;
using Pairs = std::vector<std::pair<int, int>>;
using Result = std::vector<std::pair<Corner, Corner>>;

/// Markers of both eyes of one exposure.
struct Exposure {
    std::vector<Corner> left, right;
};

bool isIncomplete(const cv::Mat& leftImage, const cv::Mat& rightImage, const CircleMarkerExtractor& e) {
    return leftImage.empty() || rightImage.empty() || e.leftIntrinsic.empty() || e.rightIntrinsic.empty() ||
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

Points rotated(const Points& points, const cv::Matx33d& rotation) {
    Points result;
    result.reserve(points.size());
    for (const Point3_<double>& p : points) {
        const cv::Vec3d r = rotation * cv::Vec3d(p.x, p.y, p.z);
        result.push_back({r[0], r[1], r[2]});
    }
    return result;
}

void transformInPlace(Points& points, const cv::Mat& rotation) {
    if (points.empty()) return;
    cv::Mat header(static_cast<int>(points.size()), 1, CV_64FC3, points.data());
    cv::transform(header, header, rotation);
}

/// Marks both corners of pair `index` as matched and appends their copies to the result.
void appendPair(Exposure& exposure, const Pairs& pairs, std::size_t index, const Point3_<double>& position,
                Result& result) {
    Corner& left = exposure.left[static_cast<std::size_t>(pairs[index].first)];
    Corner& right = exposure.right[static_cast<std::size_t>(pairs[index].second)];
    for (Corner* corner : {&left, &right}) {
        corner->matched = true;
        corner->position = {position.x, position.y, position.z};
    }
    result.emplace_back(left, right);
    result.back().first.id = result.back().second.id = static_cast<std::int32_t>(index);
}

PairVerdicts* verdictsOf(ExplainedMatch* explained) {
    return explained != nullptr ? &explained->verdicts : nullptr;
}

/// The tests that the settings ask for.
PairTest pairTestOf(const CircleMarkerExtractor& e, const CicrleConfigs& configs) {
    return {.leftProjection = e.leftProjection,
            .rightProjection = e.rightProjection,
            .fromRectified = {},
            .radii = configs.markerRadii,
            .maxRowDifference = configs.maxRowDifference,
            .minDepth = configs.minDepth,
            .maxDepth = configs.maxDepth,
            .radiusScoreGate = configs.radiusScoreGate,
            .looseSizeGate = configs.looseSizeGate,
            .plainRowGate = configs.plainRowGate,
            .sizeTolerance = configs.sizeTolerance,
            .deviationFactor = configs.deviationFactor};
}

Result matchConstellation(Exposure& exposure, CircleMarkerExtractor& e, Points& points, const CicrleConfigs& configs,
                          ExplainedMatch* explained) {
    Exposure rectified;
    if (configs.cornersRectified) {
        rectified = exposure;
    } else {
        const cv::Mat noDistortion;
        e.StereoRectifyCorners(exposure.left, rectified.left, e.leftIntrinsic, noDistortion, e.leftRectification,
                               e.leftProjection, e.leftHomography);
        e.StereoRectifyCorners(exposure.right, rectified.right, e.rightIntrinsic, noDistortion, e.rightRectification,
                               e.rightProjection, e.rightHomography);
    }
    const Pairs pairs =
        matchRectifiedCorners(rectified.left, rectified.right, pairTestOf(e, configs), cv::Mat::eye(3, 3, CV_64F),
                              {configs.edgeLengthTolerance, configs.edgeAngleTolerance}, points, verdictsOf(explained));
    if (explained != nullptr) explained->pairs = pairs;

    const cv::Matx33d backRotation = cv::Matx33d(e.leftRectification).t();
    const Points cameraPoints = rotated(points, backRotation);
    const Points cornerPoints = configs.cornersRectified ? points : cameraPoints;
    if (!configs.outputRectified) points = cameraPoints;

    Result result;
    result.reserve(pairs.size());
    for (std::size_t k = 0; k < pairs.size(); ++k) appendPair(exposure, pairs, k, cornerPoints[k], result);
    if (points.empty()) reportWarning(report_sites::kNoStereoMatch);
    return result;
}

Result matchConics(Exposure& exposure, CircleMarkerExtractor& e, Points& points, const CicrleConfigs& configs,
                   ExplainedMatch* explained) {
    const std::vector<DiscMatch> matches = matchDiscs(exposure.left, exposure.right, e, configs.cornersRectified,
                                                      conicMatchSettings(configs), verdictsOf(explained));
    Pairs pairs;
    Points corePoints;
    for (const DiscMatch& match : matches) {
        pairs.emplace_back(match.left, match.right);
        corePoints.push_back(recordOf(match.point));
    }
    if (explained != nullptr) explained->pairs = pairs;
    const Points cornerPoints = corePoints;  // the corners' positions never follow the change of frame
    if (!configs.cornersRectified && configs.outputRectified) transformInPlace(corePoints, e.leftRectification);
    if (configs.cornersRectified && !configs.outputRectified) transformInPlace(corePoints, e.leftRectification.inv());
    points = corePoints;

    Result result;
    result.reserve(pairs.size());
    for (std::size_t k = 0; k < pairs.size(); ++k) {
        for (Corner* corner : {&exposure.left[static_cast<std::size_t>(pairs[k].first)],
                               &exposure.right[static_cast<std::size_t>(pairs[k].second)]}) {
            corner->normal = eigenOf(matches[k].normal);
            corner->markerRadius = matches[k].radius;
        }
        appendPair(exposure, pairs, k, cornerPoints[k], result);
    }
    return result;
}

Result measure(const cv::Mat& leftImage, const cv::Mat& rightImage, CircleMarkerExtractor& extractor, Points& points,
               std::vector<cv::RotatedRect>& leftRects, std::vector<cv::RotatedRect>& rightRects,
               const CicrleConfigs& configs, ExplainedMatch* explained) {
    if (isIncomplete(leftImage, rightImage, extractor)) return {};
    const ExtractionCall leftEye(leftImage, extractor, 0, configs);
    const ExtractionCall rightEye(rightImage, extractor, 1, configs);
    // Without markers nothing more of the calibration is read, and its gaps are no reason to hide what the eyes saw. A
    // calibration that is refused in the end is refused to an extractor as it was.
    const std::exception_ptr gap = gapOf(extractor, configs);
    std::optional<CircleMarkerExtractor> before;
    if (gap) before = extractor;
    Exposure exposure;
    const bool leftFound = leftEye.extract(extractor, exposure.left);
    std::vector<cv::RotatedRect> foundLeft = extractor.markerRects;
    const bool rightFound = rightEye.extract(extractor, exposure.right);
    const bool found = leftFound && rightFound;
    if (found && gap) {
        extractor = *before;
        std::rethrow_exception(gap);
    }
    // Either list may be the extractor's own.
    std::vector<cv::RotatedRect> foundRight = extractor.markerRects;
    leftRects = std::move(foundLeft);
    rightRects = std::move(foundRight);
    if (!found) {
        reportWarning(report_sites::kNoMarkersInOneFrame);
        return {};
    }
    points.clear();
    return carriesConics(configs) ? matchConics(exposure, extractor, points, configs, explained)
                                  : matchConstellation(exposure, extractor, points, configs, explained);
}

}  // namespace

std::vector<std::pair<Corner, Corner>> getStereoMarker3dPoints(const cv::Mat& leftImage, const cv::Mat& rightImage,
                                                               CircleMarkerExtractor& extractor, Points& points,
                                                               std::vector<cv::RotatedRect>& leftRects,
                                                               std::vector<cv::RotatedRect>& rightRects,
                                                               const CicrleConfigs& configs) {
    return measure(leftImage, rightImage, extractor, points, leftRects, rightRects, configs, nullptr);
}

std::vector<std::pair<Corner, Corner>> explainStereoMarker3dPoints(const cv::Mat& leftImage, const cv::Mat& rightImage,
                                                                   CircleMarkerExtractor& extractor, Points& points,
                                                                   std::vector<cv::RotatedRect>& leftRects,
                                                                   std::vector<cv::RotatedRect>& rightRects,
                                                                   const CicrleConfigs& configs,
                                                                   ExplainedMatch& explained) {
    explained = {};
    return measure(leftImage, rightImage, extractor, points, leftRects, rightRects, configs, &explained);
}

}  // namespace kestrune
