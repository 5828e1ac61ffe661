// SPDX-License-Identifier: Apache-2.0
#include "canny/subpixel_contours.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <opencv2/imgproc.hpp>
#include <thread>

#include "canny/strip_threads.h"
#include "canny/weak_edges.h"
#include "checks/settings_check.h"

namespace kestrune {

namespace {

constexpr int kBeyondImage = cv::BORDER_REFLECT_101;

/// What the strips share. Each writes inside its own columns only.
struct EdgeImages {
    cv::Mat blurred, dx, dy, edges;
};

void smooth(const cv::Mat& image, const EdgeSettings& settings, cv::Mat blurred) {
    cv::GaussianBlur(image, blurred, cv::Size(settings.aperture, settings.aperture), settings.sigma, settings.sigma,
                     kBeyondImage);
}

void differentiateAndLink(const EdgeSettings& settings, const cv::Mat& blurred, cv::Mat dx, cv::Mat dy, cv::Mat edges) {
    const cv::Mat ones = cv::Mat::ones(1, 1, CV_16S);
    const cv::Point centre(-1, -1);
    cv::sepFilter2D(blurred, dx, CV_16S, settings.kernel, ones, centre, 0.0, kBeyondImage);
    cv::sepFilter2D(blurred, dy, CV_16S, ones, settings.kernel, centre, 0.0, kBeyondImage);
    suppressAndLinkEdges(blurred, dx, dy, settings.lowScaled, settings.highScaled, edges);
}

/// A strip reads the smoothed pixels of its neighbours, so no derivative is taken before all smoothing has ended: the
/// columns beside a seam would differ from run to run. Suppression and hysteresis do end at the seams.
void runThreaded(const cv::Mat& image, const EdgeSettings& settings, EdgeImages& images) {
    const std::vector<EdgeStrip> strips = cutIntoStrips(image.cols, std::thread::hardware_concurrency());
    const auto rectOf = [&image](const EdgeStrip& strip) {
        return cv::Rect(strip.firstColumn, 0, strip.width, image.rows);
    };
    runOnStrips(strips, [&](const EdgeStrip& strip, std::size_t /*number*/) {
        const cv::Rect rect = rectOf(strip);
        smooth(image(rect), settings, images.blurred(rect));
    });
    runOnStrips(strips, [&](const EdgeStrip& strip, std::size_t /*number*/) {
        const cv::Rect rect = rectOf(strip);
        differentiateAndLink(settings, images.blurred(rect), images.dx(rect), images.dy(rect), images.edges(rect));
    });
}

int scaledThreshold(int greyLevels) {
    const double scaled = greyLevels * kDerivativeGain;
    return static_cast<int>(std::clamp(scaled, 0.0, static_cast<double>(std::numeric_limits<int>::max())));
}

bool isLong(const std::vector<cv::Point>& contour, int minLength) {
    return static_cast<std::ptrdiff_t>(contour.size()) >= minLength;
}

/// Links of a contour in its tree.
enum Link { kNext = 0, kPrevious = 1, kFirstChild = 2, kParent = 3 };

/// What became of the contours that were not selected.
void noteContours(const std::vector<std::vector<cv::Point>>& contours, const std::vector<cv::Vec4i>& hierarchy,
                  int minLength, const std::vector<int>& selected, Drops& drops) {
    for (std::size_t c = 0; c < contours.size(); ++c) {
        if (std::binary_search(selected.begin(), selected.end(), static_cast<int>(c))) continue;
        const cv::Vec4i& links = hierarchy[c];
        Drop drop;
        if (!isLong(contours[c], minLength)) {
            drop = below<double>(DropCause::kLength, static_cast<double>(contours[c].size()), minLength);
        } else if (links[kParent] == -1) {
            if (links[kFirstChild] != -1) continue;  // the outer side of a loop, whose inner one is judged
            drop.cause = DropCause::kOpenContour;
            drop.measured = static_cast<double>(contours[c].size());
        } else {
            std::size_t longest = 0;
            for (int child = links[kFirstChild]; child != -1; child = hierarchy[static_cast<std::size_t>(child)][kNext])
                longest = std::max(longest, contours[static_cast<std::size_t>(child)].size());
            drop = above<double>(DropCause::kFrame, static_cast<double>(longest), minLength - 1);
        }
        note(&drops, Met::kContour, drop, cv::boundingRect(contours[c]));
    }
}

/// Lines that would be edges if one of their pixels reached the upper threshold, as long as a contour must be.
void noteWeakEdges(const EdgeImages& images, const EdgeSettings& settings, int minLength, Drops& drops) {
    cv::Mat all, dx, dy, heights;
    suppressAndLinkEdges(images.blurred, images.dx, images.dy, settings.lowScaled, settings.lowScaled, all);
    images.dx.convertTo(dx, CV_32F, 1 / kDerivativeGain);
    images.dy.convertTo(dy, CV_32F, 1 / kDerivativeGain);
    cv::magnitude(dx, dy, heights);
    noteWeakEdges(all, images.edges, heights, below(DropCause::kWeakEdge, 0.0, settings.highScaled / kDerivativeGain),
                  minLength, drops);
}

}  // namespace

cv::Mat makeEdgeDerivativeKernel(double sigma) {
    requireEdgeSigma(sigma);
    const int radius = cvRound(3.0 * sigma);
    cv::Mat taps = cv::Mat::zeros(2 * radius + 1, 1, CV_32F);
    const double twoSigmaSquared = sigma * sigma + sigma * sigma;
    float halfSum = 0;
    for (int i = 1; i <= radius; ++i) {
        const double minusSquare = -(i * i);
        const auto tap = static_cast<float>(i - i * std::exp(minusSquare / twoSigmaSquared));
        taps.at<float>(radius + i) = tap;
        taps.at<float>(radius - i) = -tap;
        halfSum += tap;
    }
    const float gain = static_cast<float>(kDerivativeGain) / halfSum;
    for (int i = 0; i < taps.rows; ++i) taps.at<float>(i) *= gain;
    cv::Mat kernel;
    taps.convertTo(kernel, CV_16S);
    return kernel;
}

std::vector<EdgeStrip> cutIntoStrips(int columns, unsigned concurrency) {
    const int wanted = static_cast<int>(std::min<unsigned>(concurrency, std::numeric_limits<int>::max()));
    const int count = std::max(1, std::min(wanted, columns));
    const int width = columns / count;
    std::vector<EdgeStrip> strips;
    strips.reserve(static_cast<std::size_t>(count));
    for (int k = 0; k < count; ++k) {
        const int first = k * width;
        strips.push_back({first, k + 1 < count ? width : columns - first});
    }
    return strips;
}

std::vector<int> selectInnerContours(const std::vector<std::vector<cv::Point>>& pixelContours,
                                     const std::vector<cv::Vec4i>& hierarchy, int minLength) {
    const auto linkOf = [&hierarchy](int contour, Link link) {
        return hierarchy[static_cast<std::size_t>(contour)][link];
    };
    const auto anyLongFrom = [&](int contour) {
        for (; contour != -1; contour = linkOf(contour, kNext)) {
            if (isLong(pixelContours[static_cast<std::size_t>(contour)], minLength)) return true;
        }
        return false;
    };

    std::vector<int> kept;
    for (int c = 0; c < static_cast<int>(pixelContours.size()); ++c) {
        if (!isLong(pixelContours[static_cast<std::size_t>(c)], minLength)) continue;
        if (linkOf(c, kParent) == -1) continue;  // the outer side of a loop
        const int child = linkOf(c, kFirstChild);
        if (child != -1) {
            if (anyLongFrom(child)) continue;
            // From the previous sibling too the walk goes forward: a first child has none in a well-formed tree.
            if (anyLongFrom(linkOf(child, kPrevious))) continue;
        }
        kept.push_back(c);
    }
    return kept;
}

EdgeSettings::EdgeSettings(double sigmaPx, long long apertureSide, int low, int high, int leastLength, int mode,
                           bool isThreaded)
    : sigma(sigmaPx),
      aperture((requireAperture(apertureSide, 1), static_cast<int>(apertureSide))),
      lowScaled(scaledThreshold(low)),
      highScaled(scaledThreshold(high)),
      minLength(leastLength),
      retrievalMode(mode),
      threaded(isThreaded),
      kernel(makeEdgeDerivativeKernel(sigmaPx)) {}

EdgeSettings::EdgeSettings(const CicrleConfigs& configs)
    : EdgeSettings(configs.sigma, configs.aperture, configs.cannyLow, configs.cannyHigh,
                   configs.minContourSize / configs.scale, cv::RETR_TREE, configs.useThreads) {}

// NOLINTNEXTLINE(readability-function-size): a list that others compile against
void detectSubpixelContours(const cv::Mat& image, double sigma, unsigned aperture, int low, int high,
                            std::vector<SubpixelContour>& contours, int minLength, int retrievalMode, bool threaded) {
    requireGreyImage(image);
    const EdgeSettings settings(sigma, aperture, low, high, minLength, retrievalMode, threaded);
    detectSubpixelContours(image, settings, contours, nullptr);
}

void detectSubpixelContours(const cv::Mat& image, const EdgeSettings& settings, std::vector<SubpixelContour>& contours,
                            Drops* drops) {
    EdgeImages images;
    images.blurred.create(image.size(), CV_8UC1);
    images.dx.create(image.size(), CV_16SC1);
    images.dy.create(image.size(), CV_16SC1);
    images.edges = cv::Mat::zeros(image.size(), CV_8UC1);
    if (settings.threaded) {
        runThreaded(image, settings, images);
    } else {
        smooth(image, settings, images.blurred);
        differentiateAndLink(settings, images.blurred, images.dx, images.dy, images.edges);
    }

    std::vector<std::vector<cv::Point>> pixelContours;
    std::vector<cv::Vec4i> hierarchy;
    cv::findContours(images.edges, pixelContours, hierarchy, settings.retrievalMode, cv::CHAIN_APPROX_NONE);

    const std::vector<int> selected = selectInnerContours(pixelContours, hierarchy, settings.minLength);
    if (drops != nullptr) {
        noteContours(pixelContours, hierarchy, settings.minLength, selected, *drops);
        noteWeakEdges(images, settings, settings.minLength, *drops);
    }
    std::vector<std::vector<cv::Point>> inner;
    inner.reserve(selected.size());
    for (const int c : selected) {
        inner.push_back(std::move(pixelContours[static_cast<std::size_t>(c)]));
    }
    refineContours(images.dx, images.dy, inner, contours);
}

}  // namespace kestrune
