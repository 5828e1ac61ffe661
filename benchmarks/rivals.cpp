// SPDX-License-Identifier: Apache-2.0
//
// Each detector gets the bounds that a user who knows the scene would give it: the range of radii, bright on dark, and
// levels between ground and disc.
#include <algorithm>
#include <memory>
#include <numbers>
#include <opencv2/features2d.hpp>
#include <opencv2/imgproc.hpp>
#include <opencv2/ximgproc/edge_drawing.hpp>

#include "candidates.h"

namespace kestrune::bench {
namespace {

// Slack of the bounds: a tilted disc has less area than its larger half axis says, and a detector that measures on the
// pixel grid is off by about a pixel.
constexpr double kRadiusSlackPx = 1;
constexpr double kLeastAreaShare = 0.6;
constexpr double kMinRadius = kMinRadiusPx - kRadiusSlackPx;
constexpr double kMaxRadius = kMaxRadiusPx + kRadiusSlackPx;
constexpr double kMinArea = kLeastAreaShare * std::numbers::pi * kMinRadiusPx * kMinRadiusPx;
constexpr double kMaxArea = std::numbers::pi * kMaxRadius * kMaxRadius;

// Shape bounds, wide enough for the smallest discs on the pixel grid.
constexpr double kLeastCircularity = 0.7;
constexpr double kLeastConvexity = 0.8;
constexpr double kLeastAxisRatio = 0.6;

constexpr double kMidGrey = (kBackgroundGrey + kDiscGrey) / 2;

// Closer than two touching discs of the smallest size no two markers can be.
constexpr double kLeastCentreDistance = 2 * kMinRadiusPx;

}  // namespace

Job blobRival(const BenchScene& scene) {
    // Levels that lie between ground and disc, ten grey levels apart as by default.
    constexpr float kLevelStep = 10;
    constexpr float kLevelMargin = 20;
    cv::SimpleBlobDetector::Params params;
    params.minThreshold = static_cast<float>(kBackgroundGrey) + kLevelMargin;
    params.maxThreshold = static_cast<float>(kDiscGrey) - kLevelMargin + 1;
    params.thresholdStep = kLevelStep;
    params.minDistBetweenBlobs = static_cast<float>(kLeastCentreDistance);
    params.filterByColor = true;
    params.blobColor = 255;
    params.filterByArea = true;
    params.minArea = static_cast<float>(kMinArea);
    params.maxArea = static_cast<float>(kMaxArea);
    params.filterByCircularity = true;
    params.minCircularity = static_cast<float>(kLeastCircularity);
    params.filterByConvexity = true;
    params.minConvexity = static_cast<float>(kLeastConvexity);
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
    constexpr double kAccumulatorReduction = 1;
    constexpr double kEdgeThreshold = 100;
    constexpr double kVotes = 18;
    auto circles = std::make_shared<std::vector<cv::Vec3f>>();
    return {[circles, image = scene.image] {
                cv::HoughCircles(image, *circles, cv::HOUGH_GRADIENT, kAccumulatorReduction, kLeastCentreDistance,
                                 kEdgeThreshold, kVotes, static_cast<int>(kMinRadius), static_cast<int>(kMaxRadius));
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
                    if (larger >= kMinRadius && larger <= kMaxRadius && smaller >= kLeastAxisRatio * larger)
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
                cv::threshold(image, s.binary, kMidGrey, 255, cv::THRESH_BINARY);
                cv::findContours(s.binary, s.contours, cv::RETR_EXTERNAL, cv::CHAIN_APPROX_NONE);
                for (const std::vector<cv::Point>& contour : s.contours) {
                    const double area = cv::contourArea(contour);
                    if (area < kMinArea || area > kMaxArea) continue;
                    const double perimeter = cv::arcLength(contour, true);
                    if (4 * std::numbers::pi * area < kLeastCircularity * perimeter * perimeter) continue;
                    const cv::RotatedRect ellipse = cv::fitEllipse(contour);
                    const auto [shorter, longer] = std::minmax({ellipse.size.width, ellipse.size.height});
                    if (shorter >= kLeastAxisRatio * longer) s.centres.emplace_back(ellipse.center);
                }
            },
            [state] { return state->centres; }};
}

}  // namespace kestrune::bench
