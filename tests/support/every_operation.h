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
        for (int k = 0; k < 120 * 160; ++k) {
            double outside = 9;
            for (const cv::Point2d& place : {cv::Point2d(40, 30), {90, 41}, {130, 75}, {55, 90}})
                outside = std::fmin(outside, std::hypot(k % 160 + shift - place.x, k / 160 - place.y) - kRadius * kFocal / kDepth);
            image.data[k] = static_cast<uchar>(40 + 200 * std::fmin(std::fmax(0.5 - outside, 0.0), 1.0));
        }
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

/// What an operation gives, first in its own lists.
struct Result {
    std::vector<Corner> corners;
    std::vector<std::pair<int, int>> pairs;
    std::vector<Point3_<double>> points;
    std::vector<double> numbers;

    std::vector<double> all() const {
        std::vector<double> n = numbers;
        for (const Corner& c : corners) n.insert(n.end(), {c.x, c.y, c.area, c.fitResidual, c.position[2], static_cast<double>(c.contour.size())});
        for (const auto& [i, j] : pairs) n.insert(n.end(), {static_cast<double>(i), static_cast<double>(j)});
        for (const Point3_<double>& p : points) n.insert(n.end(), {p.x, p.y, p.z});
        return n;
    }
    void addStereo(Host& h, int path) {
        std::vector<cv::RotatedRect> rects[2];
        for (const auto& [left, right] : getStereoMarker3dPoints(h.left, h.right, h.e, points, rects[0], rects[1], Host::settings(path)))
            pairs.emplace_back(left.id, right.id);
    }
};

/// Those by name of stereo end with the depth of a point. Numbers are six for a corner, five for a pair and its point.
struct Operation {
    const char* name;
    std::size_t count;
    std::function<void(Host&, Result&)> run;
};

inline const Operation kOperations[] = {
    {"sub-pixel contours", 24, [](Host& h, Result& r) { ExtractCircleMarker(h.left, h.e, r.corners, 0, Host::settings(0)); }},
    {"radial contours", 24, [](Host& h, Result& r) { ExtractCircleMarker(h.left, h.e, r.corners, 0, Host::settings(1)); }},
    {"edge-based", 24, [](Host& h, Result& r) { h.e.CircleExtractComplex(h.left, r.corners, 0, Host::settings(2)); }},
    {"nothing found", 0, [](Host& h, Result& r) { ExtractCircleMarker(cv::Mat::zeros(20, 20, CV_8UC1), h.e, r.corners, 1, Host::settings(1)); }},
    {"hand and depth", 24,
     [](Host& h, Result& r) {
         h.e.CircleExtractSimpleForHand(h.colour, r.corners, 0, Host::settings(0));
         h.e.DetectFeaturePointsAndInterpolate_binocular(r.corners, h.depth, h.e.leftIntrinsic);
     }},
    {"fast, undistorted", 24,
     [](Host& h, Result& r) {
         h.e.extractMarkPointsFast(h.left, r.corners, 0, Host::settings(0));
         h.e.UndistortCorners(r.corners, h.e.leftIntrinsic, h.e.leftDistortion);
     }},
    {"calibration", 3,
     [](Host& h, Result& r) {
         CircleMarkerExtractor fresh;
         Host::calibrate(fresh);
         fresh.SetStereorectifyParam({h.e.leftProjection, h.e.rightProjection, h.e.leftRectification, h.e.rightRectification});
         fresh.SetTriangulationIntrinsicMatrix(h.e.leftIntrinsic, h.e.rightIntrinsic);
         cv::Mat fundamental;
         fresh.CalcFoundationMat(h.e.rotation, h.e.translation, h.e.leftIntrinsic, h.e.rightIntrinsic, fundamental);
         CircleMarkerExtractor copy(fresh);
         copy = h.e;
         r.numbers = {fundamental.at<double>(1, 2), fresh.triangulationA(0, 0), copy.leftProjection.at<double>(0, 0)};
     }},
    {"rectified corners", 24,
     [](Host& h, Result& r) {
         h.e.StereoRectifyCorners(h.found[0], r.corners, h.e.leftIntrinsic, {}, h.e.leftRectification, h.e.leftProjection, h.e.leftHomography);
     }},
    {"eccentricity", 6,
     [](Host& h, Result& r) {
         std::vector<double>& n = r.numbers = std::vector<double>(6);
         cv::Mat position = (cv::Mat_<double>(3, 1) << 10, 20, -Host::kDepth);
         cv::RotatedRect ellipse({100, 100}, {30, 20}, 10);
         h.e.correctedEccentricityAhn(h.colour, position, ellipse, n[0], n[1], n[2], Host::kFocal, Host::kRadius);
         h.e.correctedEccentricityAhn(h.colour, position, ellipse, n[3], n[4], n[5]);
     }},
    {"stereo by constellation", 20, [](Host& h, Result& r) { r.addStereo(h, 0); }},
    {"stereo by conics", 20, [](Host& h, Result& r) { r.addStereo(h, 1); }},
    {"stereo, edge-based", 20, [](Host& h, Result& r) { r.addStereo(h, 2); }},
    {"stereo from corners", 20,
     [](Host& h, Result& r) {
         std::vector<Corner> left = h.found[0], right = h.found[1];
         const cv::Mat &A = h.e.leftIntrinsic, &B = h.e.rightIntrinsic;
         r.pairs = getStereoMarker3dPoints(left, right, h.e.leftTriangulation, A, B, h.e.fundamental, r.points);
     }},
    {"stereo from rectified corners", 32,  // by the constellation, and by the fallback, which appends its points
     [](Host& h, Result& r) {
         for (const double tolerance : {0.2, 0.0})
             r.pairs = getStereoRectifiedMarker3dPoints(h.found[0], h.found[1], {Host::kRadius}, r.points, h.turn, h.e.leftProjection,
                                                        h.e.rightProjection, 2, 500, 2000, false, false, 0.3, 3, true, tolerance, tolerance);
     }},
};

}  // namespace every_operation
