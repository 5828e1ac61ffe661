// SPDX-License-Identifier: Apache-2.0
//
// Every detector gets what a user who knows the kind would give it: the ready settings with bounds of size, shape,
// contrast and noise moved to where the kind has them.
#include <markers.h>

#include <algorithm>
#include <cmath>
#include <numbers>
#include <opencv2/features2d.hpp>
#include <opencv2/imgproc.hpp>

#include "detectors.h"

namespace kestrune::bench {
namespace {

// Slack of the bounds. An outline may lie a pixel inside the rim, and noise roughens it.
constexpr double kLeastAreaShare = 0.5, kMostAreaShare = 1.5;
constexpr double kAreaSlackPx = 1;

// Of this and less a disc at half size has too few pixels for the blob gates.
constexpr double kLeastHalfSize = 5;

// Up to this tilt the gates of the ready settings stand open, degrees.
constexpr double kReadyTilt = 50;
constexpr double kSlantCircularity = 0.5, kSlantEccentricity = 0.97, kSlantResidual = 0.15, kSlantAxisRatio = 0.28;

// The ready settings of the edge-based path: at full size, and the radius that `maxDiameter` is for.
// Blocks of the threshold that are wide enough for blurred rims, at half and at full size.
constexpr int kAperture = 21, kFullSizeAperture = 15;
constexpr double kReadyRadius = 44;
constexpr float kReadyDiameter = 130, kFullSizeDiameter = 300;

// The ready settings of the sub-pixel path are for a blur of 0.8 px; a wider one makes slopes less steep.
constexpr double kSubpixelSigma = 0.7, kReadySlope = 1.06;
constexpr double kSigmaShare = 0.6;  // its smoothing for wider ones, in units of the blur

// What a slant adds to distances from the ellipse along rays, and what size does, px and shares of the radius.
constexpr double kFitError = 2.4, kFitErrorShare = 0.06, kSlantFitError = 6, kSlantFitErrorShare = 0.15;

double noiseOf(const Kind& kind) {
    return std::sqrt(Noise{kind.noise, kind.shot}.variance(0.5 * (kind.ground() + kind.inside())));
}

bool isSlanted(const Kind& kind) {
    return kind.tilt > kReadyTilt;
}

double areaOf(const Kind& kind, double growth) {
    const double major = kind.radius + growth, minor = std::max(1.0, kind.minorHalfAxis() + growth);
    return std::numbers::pi * major * minor;
}

double leastArea(const Kind& kind) {
    return kLeastAreaShare * areaOf(kind, -kAreaSlackPx);
}

double mostArea(const Kind& kind) {
    return kMostAreaShare * areaOf(kind, kAreaSlackPx);
}

void openGates(CicrleConfigs& configs, const Kind& kind) {
    // The sub-pixel and the radial path take the ellipse's area, the fast one that of the contour.
    configs.minArea = leastArea(kind);
    configs.maxArea = mostArea(kind);
    if (kind.cover != Cover::none) configs.minCircularity = std::min(configs.minCircularity, 0.6);
    if (!isSlanted(kind)) return;
    configs.minCircularity = kSlantCircularity;
    configs.maxEccentricity = kSlantEccentricity;
    configs.maxFitResidual = static_cast<float>(kSlantResidual);
    configs.minAxisRatio = static_cast<float>(kSlantAxisRatio);
}

int thresholdOf(const Kind& kind, double noises, double leastShare, double mostShare) {
    const double c = kind.contrast;
    return -static_cast<int>(std::lround(std::clamp(noises * noiseOf(kind), leastShare * c, mostShare * c)));
}

void setEdgeBased(CicrleConfigs& configs, const Kind& kind) {
    configs.thresholdC = thresholdOf(kind, 2.5, 0.05, 0.08);
    configs.aperture = kAperture;
    const double growth = std::max(1.0, kind.radius / kReadyRadius);
    configs.maxDiameter = static_cast<float>(kReadyDiameter * growth * 2);
    if (kind.minorHalfAxis() >= kLeastHalfSize) return;
    configs.scale = 1;
    configs.aperture = kFullSizeAperture;
    configs.maxDiameter = static_cast<float>(kFullSizeDiameter * growth);
    configs.minDiameter = static_cast<float>(std::min(3.0, kind.minorHalfAxis()));
}

void setRadial(CicrleConfigs& configs, const Kind& kind) {
    configs.thresholdC = thresholdOf(kind, 4, 0.04, 0.13);
    configs.contrast = static_cast<int>(0.5 * kind.contrast);
    configs.aperture = kAperture;
    if (kind.minorHalfAxis() < kLeastHalfSize) configs.scale = 1;
}

void setSubpixel(CicrleConfigs& configs, const Kind& kind) {
    configs.sigma = std::max(kSubpixelSigma, kSigmaShare * kind.blur);
    configs.aperture = 2 * static_cast<int>(std::ceil(3 * configs.sigma)) - 1;
    const double slope = std::min(1.0, kReadySlope / std::hypot(configs.sigma, kind.blur));
    configs.cannyLow = std::max(1, static_cast<int>(kind.contrast / 3 * slope));
    configs.cannyHigh = std::max(2, static_cast<int>(2 * kind.contrast / 3 * slope));
    const double girth = std::numbers::pi * (kind.radius + kind.minorHalfAxis());
    configs.minContourSize = std::min(configs.minContourSize, static_cast<int>(0.6 * girth));
    configs.maxFitError = configs.maxPointError =
        static_cast<float>(isSlanted(kind) ? std::max(kSlantFitError, kSlantFitErrorShare * kind.radius)
                                           : std::max(kFitError, kFitErrorShare * kind.radius));
}

void setFast(CicrleConfigs&, const Kind&) {}

/// As paths that take bright markers only need it: 8 bits, markers bright.
cv::Mat brightImage(const Scene& scene, bool takesBoth) {
    cv::Mat image = scene.image;
    if (image.depth() == CV_16U) image.convertTo(image, CV_8U, 1.0 / 256);
    if (scene.kind.dark && !takesBoth) {
        cv::Mat turned;
        image.convertTo(turned, CV_8U, -1, scene.kind.ground() + scene.kind.inside());
        return turned;
    }
    return image;
}

struct Way {
    const char* name;
    const char* settings;
    Path path;
    void (*set)(CicrleConfigs& configs, const Kind& kind);
};

constexpr Way kWays[] = {
    {"edge-based", "mixed-complex.yaml", Path::complex, setEdgeBased},
    {"radial", "bright-radial.yaml", Path::radial, setRadial},
    {"sub-pixel", "bright-subpixel.yaml", Path::simple, setSubpixel},
    {"fast", "bright-fast.yaml", Path::fast, setFast},
};

Detector pathDetector(const Way& way) {
    const Settings ready = readSettings(std::string(KESTRUNE_SETTINGS_DIR) + "/" + way.settings, way.path);
    return {way.name, [way, ready](const Scene& scene, std::mt19937_64&) {
                Settings settings = ready;
                settings.configs.skipUndistort = !scene.lens.has_value();
                openGates(settings.configs, scene.kind);
                way.set(settings.configs, scene.kind);
                CircleMarkerExtractor extractor;
                std::vector<Corner> corners;
                const Camera camera{scene.cameraMatrix(), scene.distortion(), scene.image.size()};
                measure::findMarkers(extractor, brightImage(scene, way.path == Path::complex), 0, camera, settings,
                                     &corners);
                return findingsOf(scene, corners, scene.lens && way.path != Path::fast);
            }};
}

std::vector<Found> foundAt(const Scene& scene, const std::vector<cv::RotatedRect>& ellipses) {
    std::vector<Found> found;
    for (const cv::RotatedRect& ellipse : ellipses) {
        const cv::Point2d centre(ellipse.center);
        found.push_back({.centre = scene.lens ? scene.lens->inverse(centre) : centre,
                         .meanHalfAxis = 0.25 * (ellipse.size.width + ellipse.size.height)});
    }
    return found;
}

Findings findBlobs(const Scene& scene, std::mt19937_64&) {
    // Levels between ground and marker, a seventh of the contrast from both.
    constexpr double kLevels = 14, kMargin = 2;
    const Kind& kind = scene.kind;
    const double low = std::min(kind.ground(), kind.inside()), step = kind.contrast / kLevels;
    cv::SimpleBlobDetector::Params params;
    params.minThreshold = static_cast<float>(low + kMargin * step);
    params.maxThreshold = static_cast<float>(low + (kLevels - kMargin) * step + 1);
    params.thresholdStep = static_cast<float>(step);
    params.minDistBetweenBlobs = 3;
    params.filterByColor = true;
    params.blobColor = kind.dark ? 0 : 255;
    params.filterByArea = true;
    params.minArea = static_cast<float>(leastArea(kind));
    params.maxArea = static_cast<float>(mostArea(kind));
    params.filterByCircularity = true;
    params.minCircularity = static_cast<float>(isSlanted(kind) ? kSlantCircularity : 0.7);
    params.filterByConvexity = true;
    params.minConvexity = 0.8F;
    params.filterByInertia = false;
    std::vector<cv::KeyPoint> points;
    cv::SimpleBlobDetector::create(params)->detect(brightImage(scene, true), points);
    std::vector<cv::RotatedRect> ellipses;
    ellipses.reserve(points.size());
    for (const cv::KeyPoint& point : points) ellipses.emplace_back(point.pt, cv::Size2f(point.size, point.size), 0.F);
    Findings findings{.found = foundAt(scene, ellipses), .refined = {}};
    // Twice the median distance of outline points from the centre, which is no half axis of an ellipse.
    for (Found& found : findings.found) found.meanHalfAxis = std::numeric_limits<double>::quiet_NaN();
    return findings;
}

Findings fitContours(const Scene& scene, std::mt19937_64&) {
    const Kind& kind = scene.kind;
    cv::Mat binary;
    cv::threshold(brightImage(scene, false), binary, 0.5 * (kind.ground() + kind.inside()), 255, cv::THRESH_BINARY);
    std::vector<std::vector<cv::Point>> contours;
    cv::findContours(binary, contours, cv::RETR_EXTERNAL, cv::CHAIN_APPROX_NONE);
    std::vector<cv::RotatedRect> ellipses;
    for (const std::vector<cv::Point>& contour : contours) {
        const double area = cv::contourArea(contour);
        if (contour.size() >= 5 && area >= leastArea(kind) && area <= mostArea(kind))
            ellipses.push_back(cv::fitEllipse(contour));
    }
    return {.found = foundAt(scene, ellipses), .refined = {}};
}

}  // namespace

std::vector<Detector> pathDetectors() {
    std::vector<Detector> detectors;
    for (const Way& way : kWays) detectors.push_back(pathDetector(way));
    return detectors;
}

std::vector<Detector> rivalDetectors() {
    return {{"SimpleBlobDetector", findBlobs}, {"threshold+fitEllipse", fitContours}};
}

}  // namespace kestrune::bench
