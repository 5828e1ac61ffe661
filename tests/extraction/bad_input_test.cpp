// SPDX-License-Identifier: Apache-2.0
#include <climits>
#include <functional>

#include "support/calls.h"
#include "support/configs.h"

namespace kestrune::test::bad_input {

/// A refused call names the setting and writes nothing.
void expectRefused(const cv::Mat& image, const CicrleConfigs& configs, const std::string& name, std::size_t before = 0,
                   CircleMarkerExtractor extractor = {}) {
    extractor.markerRects.resize(2);
    std::vector<Corner> corners(before);
    EXPECT_EQ(refused([&] { ExtractCircleMarker(image, extractor, corners, 0, configs); }), name);
    EXPECT_TRUE(corners.size() == before && extractor.markerRects.size() == 2) << name;
    EXPECT_TRUE(extractor.scratchBlurFull.empty() && extractor.scratchGrad.empty()) << name;
}

TEST(BadInput, SettingsThatAPathCannotWorkWithAreNamed) {
    const cv::Mat image = discImage({60, 50}, {30, 25}, 8);
    enum Paths { kSubpixel = 1, kRadial = 2, kRim = 4, kBlobs = 6, kAll = 7 };
    using Set = void (*)(CicrleConfigs&, double);
    const Set scale = [](auto& c, double value) { c.scale = static_cast<int>(value); };
    const Set aperture = [](auto& c, double value) { c.aperture = static_cast<int>(value); };
    const Set sigma = [](auto& c, double value) { c.sigma = value; };
    const std::tuple<Paths, const char*, Set, std::vector<double>> cases[] = {
        {kAll, "scale", scale, {0, -2, 51}},
        {kAll, "aperture", aperture, {4, 0, -3, 4097, INT_MAX}},
        {kBlobs, "aperture", aperture, {1}},
        {kAll, "sigma", sigma, {kNaN, kInf, 4096, -1}},
        {kSubpixel, "sigma", sigma, {1.0 / 6, 0}},
        {kRim, "minDiameter", [](auto& c, double value) { c.minDiameter = static_cast<float>(value); }, {kNaN}},
        {kRim, "maxDiameter", [](auto& c, double value) { c.maxDiameter = static_cast<float>(value); }, {kNaN}}};
    const int cube[] = {4, 4, 4};
    std::vector<cv::Mat> wrongImages = {cv::Mat(3, cube, CV_8UC1, cv::Scalar(1))};
    for (const int type : {CV_8UC4, CV_8UC2, CV_16UC1, CV_16UC3, CV_32FC1, CV_8SC1}) {
        wrongImages.emplace_back(20, 20, type, cv::Scalar(1));
        std::vector<Corner> corners;
        EXPECT_THROW(CircleMarkerExtractor().extractMarkPointsFast(wrongImages.back(), corners, 0, {}), cv::Exception);
    }
    for (int path = 0; path < 3; ++path) {
        const CicrleConfigs sound = configsOfPaths()[static_cast<std::size_t>(path)];
        for (const auto& [paths, name, set, values] : cases) {
            for (const double value : (paths & 1 << path) != 0 ? values : std::vector<double>()) {
                CicrleConfigs configs = sound;
                set(configs, value);
                expectRefused(image, configs, name);
            }
        }
        for (const cv::Mat& wrong : wrongImages) expectRefused(wrong, sound, "image");
        expectRefused(image, sound, "corners", 1);
    }
    CircleMarkerExtractor rays, probes;
    rays.rayDirections = {{1, 0}, {0, -1.000002f}};
    probes.probeDirections = {{static_cast<float>(kNaN), 1}};
    expectRefused(image, discConfigs(true), "rayDirections", 0, rays);
    expectRefused(image, discConfigs(true), "probeDirections", 0, probes);
}

TEST(BadInput, TinyAndEmptyImagesEndInNothingOrAnExceptionOnEveryPath) {
    using E = CircleMarkerExtractor;
    using C = CicrleConfigs;
    using Corners = std::vector<Corner>;
    const std::function<bool(E&, cv::Mat, Corners&, const C&)> calls[] = {
        [](auto& e, auto image, auto& corners, auto& c) {
            return c.useComplexExtract ? e.CircleExtractComplex(image, corners, 0, c) : e.CircleExtractSimple(image, corners, 0, c);
        },
        [](auto& e, auto image, auto& corners, auto& c) { return e.CircleExtractSimpleForHand(image, corners, 0, c); },
        [](auto& e, auto image, auto& corners, auto& c) { return e.extractMarkPointsFast(image, corners, 0, c); }};
    const std::pair<const char*, void (*)(C&)> changes[] = {
        {"as they are", [](C&) {}},
        {"threads", [](C& c) { c.useThreads = true; }},
        {"everything passes",
         [](C& c) {
             c.cannyLow = c.cannyHigh = c.minContourSize = c.contrast = -400, c.minArea = c.minDiameter = c.minAxisRatio = -1, c.thresholdC = 255;
             c.maxArea = c.maxEccentricity = c.maxFitError = c.maxFitResidual = c.maxDiameter = static_cast<float>(kInf);
             c.minRayRatio = c.nmsFactor = 0, c.edgePercentile = 1;
         }},
        {"no numbers",
         [](C& c) {
             c.enableCircularityFilter = c.enableConvexityFilter = true, c.minRayRatio = c.maxFitResidual = c.edgePercentile = c.nmsFactor = NAN;
             c.minArea = c.maxArea = c.maxEccentricity = c.maxFitError = c.maxPointError = kNaN;
             c.minCircularity = c.maxCircularity = c.minConvexRatio = c.maxConvexRatio = kNaN;
         }},
        {"largest numbers", [](C& c) { c.cannyHigh = c.thresholdC = c.contrast = c.minContourSize = INT_MAX; }},
        {"smallest numbers", [](C& c) { c.cannyLow = c.thresholdC = c.contrast = c.minContourSize = INT_MIN; }},
        {"widest windows", [](C& c) { c.sigma = 341, c.aperture = 4095; }},
        {"beyond the ends", [](C& c) { c.minDiameter = -1e30f, c.edgePercentile = 7, c.nmsFactor = -3, c.contrast = -4; }}};
    cv::RNG rng(3);
    for (const cv::Size size : {cv::Size(), {1, 1}, {3, 3}, {1, 90}, {90, 1}, {2, 50}}) {
        cv::Mat noise(size, CV_8UC1), colour(size, CV_8UC3), white(size, CV_8UC1, cv::Scalar(255));
        if (!size.empty()) rng.fill(noise, cv::RNG::UNIFORM, 0, 256), rng.fill(colour, cv::RNG::UNIFORM, 0, 256);
        for (const auto& [what, change] : changes) {
            for (std::size_t run = 0; run < 3 * 3 * 9; ++run) {  // path of the settings, scale, image, call
                C c = configsOfPaths()[run / 27];
                change(c);
                c.refineAtFullSize = true, c.scale = 1 + run / 9 % 3;
                const std::size_t image = run / 3 % 3, call = run % 3;
                E e;
                Corners corners;
                bool found = false;
                const std::string told = refused([&] { found = calls[call](e, std::array{noise, colour, white}[image], corners, c); });
                const bool isSmall = !size.empty() && c.scale > std::min(size.width, size.height);
                EXPECT_TRUE(!found || (call == 2 && image == 2)) << what << size << run << ": a white image is a marker where no gate is on";
                const std::string expected = call == 0 ? (isSmall ? "scale" : "") : call == 2 && image == 1 && !size.empty() ? "image" : "OpenCV";
                EXPECT_TRUE(told == expected || (told.empty() && expected == "OpenCV")) << what << size << run << told;
            }
        }
    }
}

TEST(BadInput, ContoursWithoutAFitAndLensesWithoutCalibrationEndTheCallAsOpenCvDoes) {
    CircleMarkerExtractor extractor;
    // A blob at the border has no rays. The area gate refuses it; without that gate the fit has nothing to work on.
    CicrleConfigs configs = discConfigs(true);
    configs.minRayRatio = 0;
    const cv::Mat border = discImage({80, 60}, {12, 30}, 10);
    std::vector<Corner> corners;
    EXPECT_FALSE(extractor.CircleExtractSimple(border, corners, 0, configs));
    configs.minArea = 0;
    extractor.markerRects.resize(1);
    EXPECT_THROW(extractor.CircleExtractSimple(border, corners, 0, configs), cv::Exception);
    EXPECT_EQ(extractor.markerRects.size(), 1u) << "keeps its old value";

    // One pixel, met by the fast path after a disc (contours come from the bottom up).
    cv::Mat image = discImage({80, 60}, {40, 40}, 8);
    configs.skipUndistort = false;
    EXPECT_THROW(extractor.CircleExtractSimple(image, corners, 0, configs), cv::Exception);
    configs.skipUndistort = true;
    image.at<uchar>(5, 5) = 255;
    EXPECT_THROW(extractor.extractMarkPointsFast(image, corners, 0, {}), cv::Exception);
    EXPECT_EQ(corners.size(), 1u) << "keeps what was found before";
    configs.enableAreaFilter = true;
    configs.minArea = 5;
    EXPECT_TRUE(extractor.extractMarkPointsFast(image, corners, 0, configs));
    EXPECT_EQ(corners.size(), 2u) << "appended";
}

}  // namespace kestrune::test::bad_input
