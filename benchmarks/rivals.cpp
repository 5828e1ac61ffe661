// SPDX-License-Identifier: Apache-2.0
//
// Each detector gets the bounds that a user who knows the scene would give it: the range of radii, bright on dark, and
// levels between ground and disc.
#include <algorithm>
#include <memory>
#include <opencv2/features2d.hpp>
#include <opencv2/imgproc.hpp>
#include <opencv2/ximgproc/edge_drawing.hpp>

#include "candidates.h"

namespace kestrune::bench {
namespace {

constexpr double pi = 3.14159265358979323846;

// Slack of the bounds: a tilted disc has less area than its larger half axis says, and a detector that measures on the
// pixel grid is off by about a pixel.
constexpr double radiusSlackPx = 1;
constexpr double leastAreaShare = 0.6;
constexpr double minRadius = minRadiusPx - radiusSlackPx;
constexpr double maxRadius = maxRadiusPx + radiusSlackPx;
constexpr double minArea = leastAreaShare * pi * minRadiusPx * minRadiusPx;
constexpr double maxArea = pi * maxRadius * maxRadius;

// Shape bounds, wide enough for the smallest discs on the pixel grid.
constexpr double leastCircularity = 0.7;
constexpr double leastConvexity = 0.8;
constexpr double leastAxisRatio = 0.6;

constexpr double midGrey = (backgroundGrey + discGrey) / 2;

// Closer than two touching discs of the smallest size no two markers can be.
constexpr double leastCentreDistance = 2 * minRadiusPx;

}  // namespace

Job blobRival(const BenchScene& scene) {
    // Levels that lie between ground and disc, ten grey levels apart as by default.
    constexpr float levelStep = 10;
    constexpr float levelMargin = 20;
    cv::SimpleBlobDetector::Params params;
    params.minThreshold = static_cast<float>(backgroundGrey) + levelMargin;
    params.maxThreshold = static_cast<float>(discGrey) - levelMargin + 1;
    params.thresholdStep = levelStep;
    params.minDistBetweenBlobs = static_cast<float>(leastCentreDistance);
    params.filterByColor = true;
    params.blobColor = 255;
    params.filterByArea = true;
    params.minArea = static_cast<float>(minArea);
    params.maxArea = static_cast<float>(maxArea);
    params.filterByCircularity = true;
    params.minCircularity = static_cast<float>(leastCircularity);
    params.filterByConvexity = true;
    params.minConvexity = static_cast<float>(leastConvexity);
    params.filterByInertia = false;
    struct State {
        cv::Ptr<cv::SimpleBlobDetector> detector;
        std::vector<cv::KeyPoint> found;
    };
    auto state = std::make_shared<State>();
    state->detector = cv::SimpleBlobDetector::create(params);
    return {[state, image = scene.image] { state->detector->detect(image, state->found); },
            [state] {
                std::vector<cv::Point2d> centres;
                for (const cv::KeyPoint& point : state->found) centres.emplace_back(point.pt);
                return centres;
            }};
}

Job houghRival(const BenchScene& scene) {
    // Of the two variants and of coarser accumulators this one finds the most on such scenes, with the fewest false
    // ones.
    constexpr double accumulatorReduction = 1;
    constexpr double edgeThreshold = 100;
    constexpr double votes = 18;
    auto circles = std::make_shared<std::vector<cv::Vec3f>>();
    return {[circles, image = scene.image] {
                cv::HoughCircles(image, *circles, cv::HOUGH_GRADIENT, accumulatorReduction, leastCentreDistance,
                                 edgeThreshold, votes, static_cast<int>(minRadius), static_cast<int>(maxRadius));
            },
            [circles] {
                std::vector<cv::Point2d> centres;
                for (const cv::Vec3f& circle : *circles) centres.emplace_back(circle[0], circle[1]);
                return centres;
            }};
}

Job edgeDrawingRival(const BenchScene& scene) {
    struct State {
        cv::Ptr<cv::ximgproc::EdgeDrawing> detector = cv::ximgproc::createEdgeDrawing();
        std::vector<cv::Vec6d> ellipses;
    };
    auto state = std::make_shared<State>();
    return {[state, image = scene.image] {
                state->detector->detectEdges(image);
                state->detector->detectEllipses(state->ellipses);
            },
            [state] {
                // A circle has its radius in element 2, an ellipse its half axes in 3 and 4.
                std::vector<cv::Point2d> centres;
                for (const cv::Vec6d& e : state->ellipses) {
                    const double smaller = e[2] > 0 ? e[2] : std::min(e[3], e[4]);
                    const double larger = e[2] > 0 ? e[2] : std::max(e[3], e[4]);
                    if (larger >= minRadius && larger <= maxRadius && smaller >= leastAxisRatio * larger)
                        centres.emplace_back(e[0], e[1]);
                }
                return centres;
            }};
}

Job fitRival(const BenchScene& scene) {
    struct State {
        cv::Mat binary;
        std::vector<std::vector<cv::Point>> contours;
        std::vector<cv::Point2d> centres;
    };
    auto state = std::make_shared<State>();
    return {[state, image = scene.image] {
                State& s = *state;
                s.centres.clear();
                cv::threshold(image, s.binary, midGrey, 255, cv::THRESH_BINARY);
                cv::findContours(s.binary, s.contours, cv::RETR_EXTERNAL, cv::CHAIN_APPROX_NONE);
                for (const std::vector<cv::Point>& contour : s.contours) {
                    const double area = cv::contourArea(contour);
                    if (area < minArea || area > maxArea) continue;
                    const double perimeter = cv::arcLength(contour, true);
                    if (4 * pi * area < leastCircularity * perimeter * perimeter) continue;
                    const cv::RotatedRect ellipse = cv::fitEllipse(contour);
                    const auto [shorter, longer] = std::minmax({ellipse.size.width, ellipse.size.height});
                    if (shorter >= leastAxisRatio * longer) s.centres.emplace_back(ellipse.center);
                }
            },
            [state] { return state->centres; }};
}

}  // namespace kestrune::bench
