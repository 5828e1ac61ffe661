// SPDX-License-Identifier: Apache-2.0
#include "exposures.h"

#include <opencv2/calib3d.hpp>

#include "kestrune_scene/records.h"

namespace kestrune::fuzz {

namespace {

const cv::Size kImageSize(160, 120);
constexpr int kMarkers = 12;
constexpr double kLeastRadius = 5, kLargestRadius = 6.5;  // px
constexpr double kGrey = 190;

scene::Rig rigWith(const cv::Vec3d& rightPosition, const cv::Vec3d& rightTurn) {
    scene::Rig rig = scene::makeVergedRig(kImageSize);
    cv::Rodrigues(rightTurn, rig.right.rotation);
    rig.right.translation = -(rig.right.rotation * rightPosition);
    return rig;
}

/// Gives every number a value, so that what is spoiled about a record later is the same in every run.
void fillGaps(Eyes& eyes) {
    for (std::vector<Corner>* list : {&eyes.left, &eyes.right}) {
        for (Corner& corner : *list) {
            corner.markerRadius = 0;
            if (!corner.conicValid) corner.conic = {};
        }
    }
}

void findMarkers(RenderedExposure& made) {
    const CircleMarkerExtractor& e = made.extractor;
    for (const Path path : {kRows, kRadial, kRims}) {
        CicrleConfigs configs = goodConfigs(path);
        configs.skipUndistort = made.isRectified;
        CircleMarkerExtractor extractor = e;
        Eyes& found = made.found[path];
        Eyes& rectified = made.rectified[path];
        ExtractCircleMarker(made.image[0], extractor, found.left, 0, configs);
        ExtractCircleMarker(made.image[1], extractor, found.right, 1, configs);
        fillGaps(found);
        if (made.isRectified) {
            rectified = found;
            continue;
        }
        extractor.StereoRectifyCorners(found.left, rectified.left, e.leftIntrinsic, {}, e.leftRectification,
                                       e.leftProjection, e.leftHomography);
        extractor.StereoRectifyCorners(found.right, rectified.right, e.rightIntrinsic, {}, e.rightRectification,
                                       e.rightProjection, e.rightHomography);
    }
}

RenderedExposure make(const scene::Rig& rig, bool isRectified, std::uint64_t seed) {
    RenderedExposure made;
    made.extractor.imageWidth = made.extractor.imageHeight = 0;
    made.isRectified = isRectified;
    made.poses = {scene::poseOf(rig.left), scene::poseOf(rig.right)};
    made.cameras = {scene::cameraOf(rig.left), scene::cameraOf(rig.right)};
    made.extractor.transform_kestruneData2cvMat(made.poses, made.cameras, kImageSize.width, kImageSize.height,
                                                cv::CALIB_ZERO_DISPARITY);
    const auto discs = scene::makeScatteredDiscs(rig, kMarkers, kLeastRadius, kLargestRadius, 25, kGrey, seed);
    const scene::Rig seenThrough = isRectified ? scene::rectifiedRig(made.extractor, rig) : rig;
    made.image = scene::render(seenThrough, discs, {}, {}).image;
    findMarkers(made);
    return made;
}

}  // namespace

CicrleConfigs goodConfigs(Path path) {
    CicrleConfigs c{};
    c.markerName = "dot", c.scale = 1, c.sigma = path == kRows ? 0.7 : 1.0;
    c.enableAreaFilter = c.enableCircularityFilter = c.enableConvexityFilter = c.enableEccentricityFilter = true;
    c.minArea = 20, c.maxArea = 1e6, c.maxCircularity = c.maxConvexRatio = 2, c.maxEccentricity = 0.8;
    c.maxFitError = c.maxPointError = 2, c.maxFitResidual = 0.2f, c.minContourSize = 12;
    c.cannyLow = 10, c.cannyHigh = 25;
    c.useRadialContours = path == kRadial, c.aperture = path == kRows ? 5 : path == kRadial ? 21 : 11;
    c.thresholdC = path == kRims ? -5 : -8, c.minRayRatio = 0.6f, c.contrast = 25;
    c.useComplexExtract = path == kRims, c.minDiameter = 4, c.maxDiameter = 60, c.minAxisRatio = 0.4f;
    c.nmsFactor = 0.95f, c.edgePercentile = 0.8f;
    c.maxRowDifference = 3, c.minDepth = 300, c.maxDepth = 3000, c.markerRadii = {9, 11};
    c.sizeTolerance = 0.4, c.minRadiusRatio = 0.7f, c.plainRowGate = true, c.deviationFactor = 3;
    c.edgeLengthTolerance = c.edgeAngleTolerance = 0.2;
    return c;
}

const RenderedExposure& exposure(int which) {
    static const std::array<RenderedExposure, kExposureCount> all{
        make(rigWith({250, 3, 6}, {0.004, 0.27, 0.012}), false, 11),
        make(rigWith({60, 1, 2}, {0.004, 0.05, 0.003}), true, 3),
        make(rigWith({3, 150, 6}, {-0.165, 0.004, 0.003}), false, 5)};
    return all[static_cast<std::size_t>(which)];
}

}  // namespace kestrune::fuzz
