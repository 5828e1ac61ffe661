// SPDX-License-Identifier: Apache-2.0
#include "ellipsedetection/ellipse_candidates.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <opencv2/imgproc.hpp>

#include "checks/settings_check.h"
#include "ellipsedetection/contour_tree.h"
#include "ellipsedetection/window_edges.h"

namespace kestrune {

namespace {

constexpr double kPi = 3.141592653589793;
constexpr int kConnectivity = 8;
constexpr int kExtraMargin = 5;  ///< px beyond the reach of the smoothing, so that an edge and its slopes are inside

// A bound of pixels for a bound of the diameter, and linear in it although a blob has an area: blobs and contours of a
// marker are rings. A rim of one pixel has about pi pixels for each of the diameter, so that one as small as
// `minDiameter` is too short.
constexpr std::int64_t kPixelsPerDiameter = 4;

// Pixels over the box's perimeter, of a blob and of a contour: less is a fragment.
constexpr double kLeastPerimeterShare = 0.6;
// Pixels over the area of the ellipse in the box: less is a thin stroke across it.
constexpr double kLeastFill = 0.15;

/// The bounds that blobs and contours share.
struct SizeGate {
    std::int64_t minPixels, maxPixels;
    int minDiameter, maxDiameter;
    float minAxisRatio;

    bool passes(int width, int height, std::int64_t pixels) const {
        if (pixels < minPixels || pixels > maxPixels) return false;
        const int longer = std::max(width, height);
        const int shorter = std::min(width, height);
        if (longer > maxDiameter || shorter < minDiameter) return false;
        if (minAxisRatio > static_cast<float>(shorter) / static_cast<float>(longer)) return false;
        return !(kLeastPerimeterShare > static_cast<float>(pixels) / static_cast<float>(2 * (width + height)));
    }
};

bool fillsItsBox(int width, int height, int area) {
    return !(kLeastFill > static_cast<float>(area / (width * kPi * height * 0.25)));
}

/// Where the blob with these statistics is to be looked at in the full image.
cv::Rect windowOf(const int* stats, int scale, int margin, const cv::Size& fullSize) {
    return cv::Rect(stats[cv::CC_STAT_LEFT] * scale - margin, stats[cv::CC_STAT_TOP] * scale - margin,
                    stats[cv::CC_STAT_WIDTH] * scale + 2 * margin, stats[cv::CC_STAT_HEIGHT] * scale + 2 * margin) &
           cv::Rect({}, fullSize);
}

void appendSurvivors(std::vector<std::vector<cv::Point>>& contours, const std::vector<cv::Vec4i>& hierarchy,
                     const SizeGate& gate, cv::Point origin, std::vector<std::vector<cv::Point>>& candidates) {
    const std::vector<double> areas = signedAreas(contours, hierarchy);
    for (std::size_t k = 0; k < contours.size(); ++k) {
        if (!isNestedLikeARim(static_cast<int>(k), areas, hierarchy)) continue;
        std::vector<cv::Point>& contour = contours[k];
        const cv::Rect box = cv::boundingRect(contour);
        if (!gate.passes(box.width, box.height, static_cast<std::int64_t>(contour.size()))) continue;
        for (cv::Point& point : contour) point += origin;
        candidates.push_back(std::move(contour));
    }
}

}  // namespace

void detectEllipseCandidates(const cv::Mat& image, const cv::Mat& fullImage, cv::Mat& blur16U, cv::Mat& img_grad,
                             cv::Mat& img_dx, cv::Mat& img_dy, cv::Mat& binary, cv::Mat& edge_mask, cv::Mat& labels,
                             std::vector<std::vector<cv::Point>>& candidates, float sigma, int aperture, int thresholdC,
                             int scale, float edgePercentile, float nmsFactor, float minAxisRatio, int minDiameter,
                             int maxDiameter) {
    requireGreyImage(image);
    requireGreyImage(fullImage);
    requireAperture(aperture, kLeastThresholdBlock);
    requireBlurSigma(sigma);
    requireScale(scale, fullImage.size());
    const int margin = static_cast<int>(std::ceil(3.0 * sigma)) + kExtraMargin;
    const SizeGate gate = {kPixelsPerDiameter * minDiameter, kPixelsPerDiameter * maxDiameter, minDiameter, maxDiameter,
                           minAxisRatio};
    blur16U.create(fullImage.size(), CV_16UC1);
    edge_mask.create(fullImage.size(), CV_8UC1);
    for (cv::Mat* gradient : {&img_grad, &img_dx, &img_dy}) gradient->create(fullImage.size(), CV_32FC1);

    cv::adaptiveThreshold(image, binary, 255.0, cv::ADAPTIVE_THRESH_GAUSSIAN_C, cv::THRESH_BINARY, aperture,
                          usableThresholdC(thresholdC));
    cv::Mat stats, centroids;
    const int count = cv::connectedComponentsWithStats(binary, labels, stats, centroids, kConnectivity, CV_32S);

    WindowScratch scratch;
    for (int label = 1; label < count; ++label) {  // 0 is the background
        const int* const blob = stats.ptr<int>(label);
        const int width = blob[cv::CC_STAT_WIDTH];
        const int height = blob[cv::CC_STAT_HEIGHT];
        const int area = blob[cv::CC_STAT_AREA];
        if (!gate.passes(width, height, area) || !fillsItsBox(width, height, area)) continue;
        const cv::Rect rect = windowOf(blob, scale, margin, fullImage.size());
        EdgeWindow window = {blur16U(rect), img_grad(rect), img_dx(rect), img_dy(rect), edge_mask(rect)};
        const cv::Rect box = thinEdges(fullImage(rect), window, sigma, edgePercentile, nmsFactor, scratch);
        if (box.empty()) continue;
        cv::findContours(window.mask(box), scratch.contours, scratch.hierarchy, cv::RETR_TREE, cv::CHAIN_APPROX_NONE,
                         cv::Point(0, 0));
        appendSurvivors(scratch.contours, scratch.hierarchy, gate, rect.tl() + box.tl(), candidates);
    }
}

}  // namespace kestrune
