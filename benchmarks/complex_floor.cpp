// SPDX-License-Identifier: Apache-2.0
//
// The floor of the edge-based path. Most of its calls are made on small windows, one for each blob of the reduced image
// that may be a marker; which windows these are and what edges the path finds in them is settled before the clock runs.
#include <algorithm>
#include <cmath>
#include <memory>
#include <numbers>
#include <opencv2/imgproc.hpp>
#include <opencv2/ximgproc.hpp>
#include <stdexcept>
#include <vector>

#include "bench_settings.h"
#include "candidates.h"
#include "ellipsedetection/ellipse_candidates.h"
#include "ellipsedetection/gradient.h"

namespace kestrune::bench {
namespace {

// The path's bounds of a blob and of its window; a run of the path is compared before anything is measured.
constexpr int kPixelsPerDiameter = 4;
constexpr double kLeastPerimeterShare = 0.6;
constexpr double kLeastFill = 0.15;
constexpr int kExtraMargin = 5;

constexpr uchar kStrongEdge = 255;
constexpr uchar kUntouched = 1;  // neither an edge nor the zero that a window's mask starts from

struct Window {
    cv::Rect rect;
    cv::Mat edges;  ///< before thinning; empty where the path finds none
};

struct Buffers {
    cv::Mat reduced, binary, labels, stats, centroids;
    cv::Mat blur16U;  ///< full size, like that of the path
    cv::Mat smooth;   ///< of a window and what its smoothing reaches
    cv::Mat thin;
    std::vector<int> boxWidths;
    std::vector<Window> windows;
    std::vector<std::vector<cv::Point>> contours;
    std::vector<cv::Vec4i> hierarchy;
};

void searchBlobs(const cv::Mat& image, const CicrleConfigs& settings, Buffers& b) {
    if (settings.scale != 1) {
        cv::resize(image, b.reduced, cv::Size(image.cols / settings.scale, image.rows / settings.scale), 0, 0,
                   cv::INTER_LINEAR);
    } else {
        b.reduced = image;
    }
    cv::adaptiveThreshold(b.reduced, b.binary, 255.0, cv::ADAPTIVE_THRESH_GAUSSIAN_C, cv::THRESH_BINARY,
                          settings.aperture, settings.thresholdC);
    cv::connectedComponentsWithStats(b.binary, b.labels, b.stats, b.centroids, 8, CV_32S);
}

/// A window without the pixels around it, which OpenCV's filters would look at.
cv::Mat detached(const cv::Mat& image, const cv::Rect& rect) {
    const cv::Mat window = image(rect);
    return {window.rows, window.cols, window.type(), window.data, window.step};
}

/// The window, smoothed together with the pixels that the boxes reach; beyond the image its border is repeated.
void smooth(const cv::Mat& image, const cv::Rect& rect, Buffers& b) {
    int reach = 0;
    for (const int width : b.boxWidths) reach += width / 2;
    const cv::Rect grown = cv::Rect(rect.x - reach, rect.y - reach, rect.width + 2 * reach, rect.height + 2 * reach) &
                           cv::Rect({}, image.size());
    detached(image, grown).convertTo(b.smooth, CV_16U, 256.0);
    for (const int width : b.boxWidths)
        cv::boxFilter(b.smooth, b.smooth, CV_16U, cv::Size(width, width), {-1, -1}, true, cv::BORDER_REPLICATE);
    b.smooth(rect - grown.tl()).copyTo(b.blur16U(rect));
}

void traceEdges(const cv::Mat& edges, Buffers& b) {
    cv::ximgproc::thinning(edges, b.thin, cv::ximgproc::THINNING_ZHANGSUEN);
    cv::findContours(b.thin, b.contours, b.hierarchy, cv::RETR_TREE, cv::CHAIN_APPROX_NONE);
}

/// Widths of three boxes, the odd ones around the ideal width, whose variances add up to sigma^2.
std::vector<int> boxWidthsFor(double sigma) {
    const double ideal = std::sqrt(4 * sigma * sigma + 1);
    const int lower = (static_cast<int>(ideal) - 1) / 2 * 2 + 1;
    const long passes = std::lround((3.0 * lower * lower + 12 * lower + 9 - 12 * sigma * sigma) / (4.0 * (lower + 1)));
    std::vector<int> widths;
    for (long i = 0; i < 3; ++i) widths.push_back(i < passes ? lower : lower + 2);
    return widths;
}

bool mayBeMarker(int width, int height, int area, const CicrleConfigs& settings) {
    const int least = static_cast<int>(settings.minDiameter);
    const int largest = static_cast<int>(settings.maxDiameter);
    const auto [shorter, longer] = std::minmax(width, height);
    return area >= kPixelsPerDiameter * least && area <= kPixelsPerDiameter * largest && shorter >= least &&
           longer <= largest && static_cast<float>(shorter) / longer >= settings.minAxisRatio &&
           area >= kLeastPerimeterShare * 2 * (width + height) &&
           area >= kLeastFill * std::numbers::pi * width * height / 4;
}

/// Weak edges stay where they hang together with a strong one.
cv::Mat linkedEdges(const cv::Mat& mask) {
    cv::Mat labels, linked(mask.size(), CV_8UC1);
    std::vector<uchar> states(static_cast<std::size_t>(cv::connectedComponents(mask, labels, 8, CV_32S)), 0);
    const auto stateAt = [&](int y, int x) -> uchar& { return states[static_cast<std::size_t>(labels.at<int>(y, x))]; };
    for (int y = 0; y < mask.rows; ++y)
        for (int x = 0; x < mask.cols; ++x)
            if (mask.at<uchar>(y, x) == kStrongEdge) stateAt(y, x) = kStrongEdge;
    for (int y = 0; y < mask.rows; ++y)
        for (int x = 0; x < mask.cols; ++x) linked.at<uchar>(y, x) = stateAt(y, x);
    return linked;
}

/// Finds the edges of one window as the path does, by the calls of the floor where it has them; `thinned` is the
/// result.
Window makeWindow(const cv::Mat& image, const cv::Rect& rect, const CicrleConfigs& settings, Buffers& b,
                  cv::Mat thinned) {
    smooth(image, rect, b);
    const cv::Mat blurred = detached(b.blur16U, rect);
    cv::Mat grad, dx, dy, mask = cv::Mat::zeros(rect.size(), CV_8UC1);
    std::vector<int> strong, weak;
    float least = 0, largest = 0;
    calc_gradient(blurred, grad, dx, dy, least, largest);
    const float high = calc_stable_edge_threshold(grad, least, largest, settings.edgePercentile);
    find_edge_mask_nms(grad, dx, dy, mask, strong, weak, high * 0.5f, high, settings.nmsFactor);
    thinned.setTo(0);
    if (strong.empty()) return {rect, {}};
    Window window = {rect, linkedEdges(mask)};
    traceEdges(window.edges, b);
    b.thin.copyTo(thinned);
    return window;
}

/// The windows of all blobs that the path looks at, in its order.
///
/// @throws std::runtime_error  if a run of the path smooths or thins any window otherwise, or has other windows.
void makeWindows(const cv::Mat& image, const CicrleConfigs& settings, Buffers& b) {
    const int margin = static_cast<int>(std::ceil(3 * settings.sigma)) + kExtraMargin;
    const cv::Rect whole({}, image.size());
    cv::Mat thinned(image.size(), CV_8UC1, cv::Scalar(kUntouched));
    for (int label = 1; label < b.stats.rows; ++label) {
        const int* const blob = b.stats.ptr<int>(label);
        const int width = blob[cv::CC_STAT_WIDTH], height = blob[cv::CC_STAT_HEIGHT];
        if (!mayBeMarker(width, height, blob[cv::CC_STAT_AREA], settings)) continue;
        const cv::Rect box(blob[cv::CC_STAT_LEFT] * settings.scale - margin,
                           blob[cv::CC_STAT_TOP] * settings.scale - margin, width * settings.scale + 2 * margin,
                           height * settings.scale + 2 * margin);
        b.windows.push_back(makeWindow(image, box & whole, settings, b, thinned(box & whole)));
    }

    cv::Mat binary, labels, grad, dx, dy, blur16U = cv::Mat::zeros(image.size(), CV_16UC1);
    cv::Mat mask(image.size(), CV_8UC1, cv::Scalar(kUntouched));
    std::vector<std::vector<cv::Point>> candidates;
    detectEllipseCandidates(b.reduced, image, blur16U, grad, dx, dy, binary, mask, labels, candidates,
                            static_cast<float>(settings.sigma), settings.aperture, settings.thresholdC, settings.scale,
                            settings.edgePercentile, settings.nmsFactor, settings.minAxisRatio,
                            static_cast<int>(settings.minDiameter), static_cast<int>(settings.maxDiameter));
    if (cv::norm(mask, thinned, cv::NORM_INF) != 0 || cv::norm(blur16U, b.blur16U, cv::NORM_INF) != 0)
        throw std::runtime_error("the floor of the edge-based path has other windows or edges than the path");
}

}  // namespace

Job complexFloor(const BenchScene& scene, int scale) {
    const CicrleConfigs settings = complexSettings(scale);
    auto buffers = std::make_shared<Buffers>();
    buffers->boxWidths = boxWidthsFor(settings.sigma);
    searchBlobs(scene.image, settings, *buffers);
    buffers->blur16U = cv::Mat::zeros(scene.image.size(), CV_16UC1);
    makeWindows(scene.image, settings, *buffers);
    return {[buffers, settings, image = scene.image] {
        Buffers& b = *buffers;
        searchBlobs(image, settings, b);
        for (const Window& window : b.windows) {
            smooth(image, window.rect, b);
            if (!window.edges.empty()) traceEdges(window.edges, b);
        }
    }};
}

}  // namespace kestrune::bench
