// SPDX-License-Identifier: Apache-2.0
//
// Every operation of the library as a host calls it, with the installed headers and C++17 alone.
#pragma once

#include <kestrune/MarkerExtractor.h>

#include <cmath>
#include <functional>

namespace every_operation {

using namespace kestrune;

/// Four discs before a rectified pair, and what a host keeps from call to call.
struct Host {
    static constexpr double kFocal = 200, kBase = 100, kDepth = 1000, kRadius = 35;  // px, mm
    cv::Mat left = picture(0), right = picture(kFocal * kBase / kDepth), colour, depth{120, 160, CV_32FC1, cv::Scalar(kDepth)};
    cv::Mat turn = cv::Mat::eye(3, 3, CV_64F);
    CircleMarkerExtractor e;
    std::vector<Corner> found[2];

    Host() {
        calibrate(e);
        cv::merge(std::vector<cv::Mat>(3, left), colour);
        for (int eye = 0; eye < 2; ++eye) e.CircleExtractSimple(eye == 0 ? left : right, found[eye], eye, settings(1));
    }
    static cv::Mat picture(double shift) {
        cv::Mat image(120, 160, CV_8UC1);
        image.forEach<uchar>([shift](uchar& grey, const int* at) {
            double outside = 9;
            for (const cv::Point2d& place : {cv::Point2d(40, 30), {90, 41}, {130, 75}, {55, 90}})
                outside = std::fmin(outside, std::hypot(at[1] + shift - place.x, at[0] - place.y) - kRadius * kFocal / kDepth);
            grey = static_cast<uchar>(40 + 200 * std::fmin(std::fmax(0.5 - outside, 0.0), 1.0));
        });
        return image;
    }
    static void calibrate(CircleMarkerExtractor& e) {
        const Camera_<double, 2, 2> camera{{kFocal, kFocal, 80, 60}};
        const Pose_<double> left{{1, 0, 0, 0, 1, 0, 0, 0, 1, 0, 0, 0}}, right{{1, 0, 0, 0, 1, 0, 0, 0, 1, kBase, 0, 0}};
        e.transform_kestruneData2cvMat({left, right}, {camera, camera}, 160, 120, 0);
    }
    /// @param path  0 sub-pixel, 1 radial, 2 edge-based.
    static CicrleConfigs settings(int path) {
        CicrleConfigs c{};
        c.useRadialContours = path == 1, c.useComplexExtract = path == 2, c.plainRowGate = true;
        c.scale = 1, c.aperture = 11, c.sigma = 1, c.thresholdC = -8, c.contrast = 40, c.minRayRatio = 0.8F, c.cannyLow = 10, c.cannyHigh = 25;
        c.minContourSize = 12, c.minArea = 20, c.maxArea = 1e4, c.maxEccentricity = 0.9, c.maxFitResidual = 0.2F, c.maxFitError = c.maxPointError = 2;
        c.minDiameter = 6, c.maxDiameter = 200, c.minAxisRatio = 0.4F, c.nmsFactor = 0.95F, c.edgePercentile = 0.8F;
        c.markerRadii = {kRadius}, c.sizeTolerance = 0.3, c.maxRowDifference = 2, c.minDepth = 500, c.maxDepth = 2000;
        c.minRadiusRatio = 0.8F, c.deviationFactor = 3, c.edgeLengthTolerance = c.edgeAngleTolerance = 0.2;
        return c;
    }
};

/// What an operation gave.
struct Numbers : std::vector<double> {
    void add(const std::vector<Corner>& corners) {
        for (const Corner& c : corners) insert(end(), {c.x, c.y, c.area, c.fitResidual, c.position[2], static_cast<double>(c.contour.size())});
    }
    void add(const std::vector<std::pair<int, int>>& pairs, const std::vector<Point3_<double>>& points) {
        for (const auto& [i, j] : pairs) insert(end(), {static_cast<double>(i), static_cast<double>(j)});
        for (const Point3_<double>& p : points) insert(end(), {p.x, p.y, p.z});
    }
};

struct Operation {
    const char* name;
    std::size_t count;  ///< of numbers: six for a corner, five for a pair and its point
    std::function<void(Host&, Numbers&)> run;
};

inline Operation extraction(const char* name, int path, bool useThreads = false) {
    return {name, 24, [=](Host& h, Numbers& result) {
                CicrleConfigs configs = Host::settings(path);
                configs.useThreads = useThreads;
                std::vector<Corner> corners;
                ExtractCircleMarker(h.left, h.e, corners, 0, configs);
                result.add(corners);
            }};
}

inline Operation stereo(const char* name, int path) {
    return {name, 20, [=](Host& h, Numbers& result) {
                std::vector<Point3_<double>> points;
                std::vector<cv::RotatedRect> rects[2];
                std::vector<std::pair<int, int>> ids;
                for (const auto& [left, right] : getStereoMarker3dPoints(h.left, h.right, h.e, points, rects[0], rects[1], Host::settings(path)))
                    ids.emplace_back(left.id, right.id);
                result.add(ids, points);
            }};
}

/// Those by name of stereo end with the depth of a point.
inline const Operation kOperations[] = {
    extraction("sub-pixel contours", 0),
    extraction("radial contours", 1),
    extraction("edge-based", 2),
    stereo("stereo by constellation", 0),
    stereo("stereo by conics", 1),
    stereo("stereo, edge-based", 2),
    {"hand and depth", 24,
     [](Host& h, Numbers& result) {
         std::vector<Corner> corners;
         h.e.CircleExtractSimpleForHand(h.colour, corners, 0, Host::settings(0));
         h.e.DetectFeaturePointsAndInterpolate_binocular(corners, h.depth, h.e.leftIntrinsic);
         result.add(corners);
     }},
    {"fast, undistorted", 24,
     [](Host& h, Numbers& result) {
         std::vector<Corner> corners;
         h.e.extractMarkPointsFast(h.left, corners, 0, Host::settings(0));
         h.e.UndistortCorners(corners, h.e.leftIntrinsic, h.e.leftDistortion);
         result.add(corners);
     }},
    {"nothing found", 1,
     [](Host& h, Numbers& result) {
         std::vector<Corner> corners;
         result.push_back(h.e.CircleExtractComplex(cv::Mat::zeros(20, 20, CV_8UC1), corners, 1, Host::settings(2)));
         ExtractCircleMarker(cv::Mat::zeros(20, 20, CV_8UC1), h.e, corners, 1, Host::settings(1));
     }},
    {"calibration", 3,
     [](Host& h, Numbers& result) {
         CircleMarkerExtractor fresh;
         Host::calibrate(fresh);
         fresh.SetStereorectifyParam({h.e.leftProjection, h.e.rightProjection, h.e.leftRectification, h.e.rightRectification});
         fresh.SetTriangulationIntrinsicMatrix(h.e.leftIntrinsic, h.e.rightIntrinsic);
         cv::Mat fundamental;
         fresh.CalcFoundationMat(h.e.rotation, h.e.translation, h.e.leftIntrinsic, h.e.rightIntrinsic, fundamental);
         CircleMarkerExtractor copy(fresh);
         copy = h.e;
         result.insert(result.end(), {fundamental.at<double>(1, 2), fresh.triangulationA(0, 0), copy.leftProjection.at<double>(0, 0)});
     }},
    {"rectified corners", 24,
     [](Host& h, Numbers& result) {
         std::vector<Corner> target;
         h.e.StereoRectifyCorners(h.found[0], target, h.e.leftIntrinsic, {}, h.e.leftRectification, h.e.leftProjection, h.e.leftHomography);
         result.add(target);
     }},
    {"eccentricity", 6,
     [](Host& h, Numbers& r) {
         r.resize(6);
         cv::Mat position = (cv::Mat_<double>(3, 1) << 10, 20, -Host::kDepth);
         cv::RotatedRect ellipse({100, 100}, {30, 20}, 10);
         h.e.correctedEccentricityAhn(h.colour, position, ellipse, r[0], r[1], r[2], Host::kFocal, Host::kRadius);
         h.e.correctedEccentricityAhn(h.colour, position, ellipse, r[3], r[4], r[5]);
     }},
    {"stereo from corners", 20,
     [](Host& h, Numbers& result) {
         std::vector<Point3_<double>> points;
         std::vector<Corner> left = h.found[0], right = h.found[1];
         const auto pairs =
             getStereoMarker3dPoints(left, right, h.e.leftTriangulation, h.e.leftIntrinsic, h.e.rightIntrinsic, h.e.fundamental, points);
         result.add(pairs, points);
     }},
    {"stereo from rectified corners", 40,
     [](Host& h, Numbers& result) {
         for (const double tolerance : {0.2, 0.0}) {  // by the constellation, and by the fallback
             std::vector<Point3_<double>> points;
             const auto pairs = getStereoRectifiedMarker3dPoints(h.found[0], h.found[1], {Host::kRadius}, points, h.turn, h.e.leftProjection,
                                                                 h.e.rightProjection, 2, 500, 2000, false, false, 0.3, 3, true, tolerance, tolerance);
             result.add(pairs, points);
         }
     }},
};

}  // namespace every_operation
