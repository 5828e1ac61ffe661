// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <functional>
#include <limits>

#include "support/calls.h"
#include "support/configs.h"

namespace kestrune {
namespace {

using Change = std::function<void(CicrleConfigs&)>;
using test::kInf;
using test::kNaN;

/// Runs a call that must be refused: code, name of the setting in the text, and nothing written.
void expectRefused(const cv::Mat& image, const CicrleConfigs& configs, const std::string& name, std::size_t before = 0,
                   CircleMarkerExtractor extractor = {}) {
    extractor.markerRects.resize(2);
    std::vector<Corner> corners(before);
    try {
        ExtractCircleMarker(image, extractor, corners, 0, configs);
        ADD_FAILURE() << name << " was not refused";
    } catch (const cv::Exception& e) {
        EXPECT_EQ(e.code, cv::Error::StsBadArg) << e.what();
        EXPECT_NE(e.err.find(name + ": "), std::string::npos) << e.what();
    }
    EXPECT_EQ(corners.size(), before);
    EXPECT_EQ(extractor.markerRects.size(), 2u) << "untouched";
    EXPECT_TRUE(extractor.scratchBlurFull.empty() && extractor.scratchGrad.empty()) << "untouched";
}

TEST(BadInput, SettingsThatAPathCannotWorkWithAreNamed) {
    const cv::Mat image = test::discImage({60, 50}, {30, 25}, 8);
    enum Paths { kSubpixel = 1, kRadial = 2, kRim = 4, kBlobs = 6, kAll = 7 };
    const struct {
        Paths paths;
        const char* name;
        Change change;
    } cases[] = {
        {kAll, "scale", [](auto& c) { c.scale = 0; }},
        {kAll, "scale", [](auto& c) { c.scale = -2; }},
        {kAll, "scale", [](auto& c) { c.scale = 51; }},
        {kAll, "aperture", [](auto& c) { c.aperture = 4; }},
        {kAll, "aperture", [](auto& c) { c.aperture = 0; }},
        {kAll, "aperture", [](auto& c) { c.aperture = -3; }},
        {kAll, "aperture", [](auto& c) { c.aperture = std::numeric_limits<int>::max(); }},
        {kBlobs, "aperture", [](auto& c) { c.aperture = 1; }},
        {kAll, "sigma", [](auto& c) { c.sigma = kNaN; }},
        {kAll, "sigma", [](auto& c) { c.sigma = kInf; }},
        {kAll, "sigma", [](auto& c) { c.sigma = 1e300; }},
        {kAll, "sigma", [](auto& c) { c.sigma = -1; }},
        {kSubpixel, "sigma", [](auto& c) { c.sigma = 1.0 / 6; }},
        {kSubpixel, "sigma", [](auto& c) { c.sigma = 0; }},
        {kRim, "minDiameter", [](auto& c) { c.minDiameter = static_cast<float>(kNaN); }},
        {kRim, "maxDiameter", [](auto& c) { c.maxDiameter = static_cast<float>(kNaN); }},
    };
    const std::pair<Paths, CicrleConfigs> paths[] = {
        {kSubpixel, test::discConfigs(false)}, {kRadial, test::discConfigs(true)}, {kRim, test::rimConfigs()}};
    for (const auto& c : cases) {
        for (auto [path, configs] : paths) {
            if ((c.paths & path) == 0) continue;
            c.change(configs);
            expectRefused(image, configs, c.name);
        }
    }
    for (const int type : {CV_8UC4, CV_8UC2, CV_16UC1, CV_16UC3, CV_32FC1, CV_8SC1}) {
        for (const auto& [path, configs] : paths) expectRefused(cv::Mat(20, 20, type, cv::Scalar(1)), configs, "image");
        std::vector<Corner> corners;
        EXPECT_THROW(CircleMarkerExtractor().extractMarkPointsFast(cv::Mat(20, 20, type, cv::Scalar(1)), corners, 0, {}), cv::Exception);
    }
    const int cube[] = {4, 4, 4};
    for (const auto& [path, configs] : paths) {
        expectRefused(cv::Mat(3, cube, CV_8UC1, cv::Scalar(1)), configs, "image");
        expectRefused(image, configs, "corners", 1);
        if (path != kRadial) continue;
        CircleMarkerExtractor filled[2];
        filled[0].rayDirections = {{1, 0}, {0, -1.01f}};
        filled[1].probeDirections = {{NAN, 1}};
        expectRefused(image, configs, "rayDirections", 0, filled[0]);
        expectRefused(image, configs, "probeDirections", 0, filled[1]);
    }
}

/// No crash, no read out of bounds, and either a consistent result or OpenCV's exception.
void expectSound(const cv::Mat& image, const CicrleConfigs& configs, const std::string& what) {
    CircleMarkerExtractor extractor;
    std::vector<Corner> corners;
    try {
        const bool found = extractor.CircleExtractSimple(image, corners, 0, configs);
        EXPECT_EQ(found, !corners.empty()) << what;
        EXPECT_EQ(extractor.markerRects.size(), corners.size()) << what;
    } catch (const cv::Exception& e) {
        EXPECT_TRUE(extractor.markerRects.empty()) << what << e.what();
    }
    for (std::size_t k = 0; k < corners.size(); ++k) EXPECT_EQ(corners[k].id, static_cast<int>(k)) << what;
}

TEST(BadInput, TinyImagesAndExtremeSettingsAreSound) {
    const cv::Size sizes[] = {{1, 1}, {3, 3}, {1, 90}, {90, 1}, {2, 50}, {60, 50}};
    const struct {
        const char* what;
        Change change;
    } changes[] = {
        {"as they are", [](auto&) {}},
        {"threads", [](auto& c) { c.useThreads = true; }},
        {"everything passes",
         [](auto& c) {
             c.cannyLow = c.cannyHigh = -5;
             c.minContourSize = -1;
             c.minArea = -1;
             c.contrast = -400;
             c.thresholdC = 255;
             c.minRayRatio = 0;
             c.maxEccentricity = c.maxFitError = kInf;
         }},
        {"rays without a fine edge",
         [](auto& c) {
             c.contrast = -4;
             c.thresholdC = -1;
             c.minRayRatio = 0.1f;
         }},
        {"no numbers",
         [](auto& c) {
             c.minArea = c.maxArea = c.maxEccentricity = c.maxFitError = c.maxPointError = kNaN;
             c.minRayRatio = c.maxFitResidual = static_cast<float>(kNaN);
             c.enableCircularityFilter = c.enableConvexityFilter = true;
             c.minCircularity = c.maxCircularity = c.minConvexRatio = c.maxConvexRatio = kNaN;
         }},
        {"infinite",
         [](auto& c) {
             c.minArea = -kInf;
             c.maxArea = kInf;
             c.minRayRatio = -static_cast<float>(kInf);
         }},
        {"largest numbers", [](auto& c) { c.cannyHigh = c.thresholdC = c.contrast = c.minContourSize = std::numeric_limits<int>::max(); }},
        {"smallest numbers", [](auto& c) { c.cannyLow = c.thresholdC = c.contrast = c.minContourSize = std::numeric_limits<int>::min(); }},
        {"a wide kernel",
         [](auto& c) {
             c.sigma = 40;
             c.aperture = 151;
         }},
    };
    cv::RNG rng(3);
    for (const cv::Size size : sizes) {
        cv::Mat noise(size, CV_8UC1), colour;
        rng.fill(noise, cv::RNG::UNIFORM, 0, 256);
        cv::cvtColor(noise, colour, cv::COLOR_GRAY2BGR);
        const cv::Mat images[] = {noise, colour, test::discImage(size, {size.width / 2.0, size.height / 2.0}, 8), test::discImage(size, {2, 3}, 8),
                                  cv::Mat(size, CV_8UC1, cv::Scalar(255))};
        for (const auto& change : changes) {
            for (const bool radial : {false, true}) {
                for (const int scale : {1, 2, 3}) {
                    CicrleConfigs configs = test::discConfigs(radial);
                    change.change(configs);
                    configs.scale = scale;
                    configs.refineAtFullSize = true;
                    for (const cv::Mat& image : images) {
                        if (std::min(size.width, size.height) < scale) {
                            expectRefused(image, configs, "scale");
                        } else {
                            expectSound(image, configs, change.what);
                        }
                    }
                }
            }
        }
    }
}

TEST(BadInput, EmptyImagesGiveFalseAndLeaveTheListAlone) {
    CircleMarkerExtractor extractor;
    for (const bool radial : {false, true}) {
        std::vector<Corner> corners(2);
        extractor.markerRects.resize(3);
        EXPECT_FALSE(extractor.CircleExtractSimple(cv::Mat(), corners, 0, test::discConfigs(radial)));
        EXPECT_TRUE(extractor.markerRects.empty());
        extractor.markerRects.resize(3);
        EXPECT_FALSE(extractor.CircleExtractComplex(cv::Mat(), corners, 0, test::rimConfigs()));
        EXPECT_TRUE(extractor.markerRects.empty());
        EXPECT_FALSE(extractor.extractMarkPointsFast(cv::Mat(), corners, 0, test::discConfigs(radial)));
        EXPECT_EQ(corners.size(), 2u);
    }
}

TEST(BadInput, ContoursTooShortForAFitEndTheCallAsOpenCvDoes) {
    CircleMarkerExtractor extractor;
    // A blob at the border has no rays. The area gate refuses it; without that gate the fit has nothing to work on.
    CicrleConfigs configs = test::discConfigs(true);
    configs.minRayRatio = 0;
    const cv::Mat border = test::discImage({80, 60}, {12, 30}, 10);
    std::vector<Corner> corners;
    EXPECT_FALSE(extractor.CircleExtractSimple(border, corners, 0, configs));
    configs.minArea = 0;
    extractor.markerRects.resize(1);
    EXPECT_THROW(extractor.CircleExtractSimple(border, corners, 0, configs), cv::Exception);
    EXPECT_EQ(extractor.markerRects.size(), 1u) << "keeps its old value";

    // One pixel, met by the fast path after a disc (contours come from the bottom up).
    cv::Mat image = test::discImage({80, 60}, {40, 40}, 8);
    image.at<uchar>(5, 5) = 255;
    EXPECT_THROW(extractor.extractMarkPointsFast(image, corners, 0, {}), cv::Exception);
    EXPECT_EQ(corners.size(), 1u) << "keeps what was found before";
    configs.enableAreaFilter = true;
    configs.minArea = 5;
    EXPECT_TRUE(extractor.extractMarkPointsFast(image, corners, 0, configs));
    EXPECT_EQ(corners.size(), 2u) << "appended";
}

TEST(BadInput, UndistortingWithoutCalibrationIsOpenCvsException) {
    CicrleConfigs configs = test::discConfigs(true);
    configs.skipUndistort = false;
    CircleMarkerExtractor extractor;
    std::vector<Corner> corners;
    EXPECT_THROW(extractor.CircleExtractSimple(test::discImage({80, 60}, {40, 30}, 8), corners, 0, configs), cv::Exception);
}

TEST(BadInput, FullSizeDetectionThatFindsOnlyBackgroundDropsTheBlob) {
    // A checkerboard patch: reduced, it is a bright grey square; at full size no pixel of it exceeds its surroundings by C.
    cv::Mat image(120, 160, CV_8UC1, cv::Scalar(40));
    for (int y = 0; y < 24; ++y) {
        for (int x = 0; x < 24; ++x) image.at<uchar>(48 + y, 64 + x) = (x + y) % 2 == 0 ? 110 : 50;
    }
    CicrleConfigs configs = test::discConfigs(true);
    configs.scale = 2;
    configs.refineAtFullSize = true;
    configs.thresholdC = -1;
    configs.minRayRatio = 0;
    for (const int c : {-1, -20, -35, -45, -60}) {
        configs.thresholdC = c;
        expectSound(image, configs, "checkerboard " + std::to_string(c));
    }
}

}  // namespace
}  // namespace kestrune
