// SPDX-License-Identifier: Apache-2.0
#include <memory>
#include <opencv2/imgproc.hpp>

#include "bench_settings.h"
#include "candidates.h"
#include "canny/subpixel_contours.h"

namespace kestrune::bench {
namespace {

// What the fast path thresholds with.
constexpr double kFastLevel = 100;
constexpr double kFastForeground = 250;

struct SubpixelBuffers {
    cv::Mat kernel, one;
    cv::Mat blurred, dx, dy, edges;
    std::vector<std::vector<cv::Point>> contours;
    std::vector<cv::Vec4i> hierarchy;
};

void blurAndDerive(const cv::Mat& image, const CicrleConfigs& settings, SubpixelBuffers& b) {
    const cv::Point centred(-1, -1);
    cv::GaussianBlur(image, b.blurred, cv::Size(settings.aperture, settings.aperture), settings.sigma, settings.sigma,
                     cv::BORDER_REFLECT_101);
    cv::sepFilter2D(b.blurred, b.dx, CV_16S, b.kernel, b.one, centred, 0.0, cv::BORDER_REFLECT_101);
    cv::sepFilter2D(b.blurred, b.dy, CV_16S, b.one, b.kernel, centred, 0.0, cv::BORDER_REFLECT_101);
}

}  // namespace

Job radialFloor(const BenchScene& scene, int scale) {
    struct Buffers {
        cv::Mat blurred, reduced, binary, labels, stats, centroids;
    };
    auto buffers = std::make_shared<Buffers>();
    return {[buffers, settings = radialSettings(scale, false), image = scene.image] {
        Buffers& b = *buffers;
        if (settings.scale != 1) {
            cv::resize(image, b.reduced, cv::Size(image.cols / settings.scale, image.rows / settings.scale), 0, 0,
                       cv::INTER_LINEAR);
        } else {
            b.reduced = image;
        }
        cv::GaussianBlur(image, b.blurred, cv::Size(settings.aperture, settings.aperture), settings.sigma,
                         settings.sigma, cv::BORDER_REFLECT_101);
        cv::adaptiveThreshold(b.reduced, b.binary, 255.0, cv::ADAPTIVE_THRESH_GAUSSIAN_C, cv::THRESH_BINARY,
                              settings.aperture, settings.thresholdC);
        cv::connectedComponentsWithStats(b.binary, b.labels, b.stats, b.centroids, 8, CV_32S);
    }};
}

Job subpixelFloor(const BenchScene& scene) {
    const CicrleConfigs settings = subpixelSettings(false);
    auto buffers = std::make_shared<SubpixelBuffers>();
    buffers->kernel = makeEdgeDerivativeKernel(settings.sigma);
    buffers->one = cv::Mat::ones(1, 1, CV_16S);
    constexpr int gain = static_cast<int>(kDerivativeGain);
    // The contours are traced on the edges that the path has; what it takes to find them is not part of the floor.
    blurAndDerive(scene.image, settings, *buffers);
    buffers->edges = cv::Mat::zeros(scene.image.size(), CV_8UC1);
    suppressAndLinkEdges(scene.image, buffers->dx, buffers->dy, settings.cannyLow * gain, settings.cannyHigh * gain,
                         buffers->edges);
    return {[buffers, settings, image = scene.image] {
        blurAndDerive(image, settings, *buffers);
        cv::findContours(buffers->edges, buffers->contours, buffers->hierarchy, cv::RETR_TREE, cv::CHAIN_APPROX_NONE);
    }};
}

Job fastFloor(const BenchScene& scene) {
    struct Buffers {
        cv::Mat binary;
        std::vector<std::vector<cv::Point>> contours;
    };
    auto buffers = std::make_shared<Buffers>();
    return {[buffers, image = scene.image] {
        cv::threshold(image, buffers->binary, kFastLevel, kFastForeground, cv::THRESH_BINARY);
        cv::findContours(buffers->binary, buffers->contours, cv::RETR_EXTERNAL, cv::CHAIN_APPROX_NONE);
    }};
}

}  // namespace kestrune::bench
