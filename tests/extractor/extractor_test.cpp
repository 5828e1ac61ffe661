// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <cstring>
#include <regex>
#include <sstream>
#include <thread>
#include <type_traits>

#include "logging/logging.h"
#include "support/configs.h"

namespace kestrune {
namespace {

static_assert(!std::is_polymorphic_v<CircleMarkerExtractor> && !std::is_polymorphic_v<Corner>);

Corner filledCorner() {
    Corner c;
    c.id = 7;
    c.x = 1.5;
    c.y = 2.5;
    c.conic = {1, 2, 3, 4, 5, 6};
    c.markerRadius = 3;
    c.scatter = Eigen::MatrixXd::Identity(6, 6);
    c.normal = {0, 0, 1};
    c.position = {1, 2, 3};
    c.contour = {{1, 2}, {3, 4}};
    c.auxListA = {{{1, 2, 3}}};
    c.auxListB = {{{4, 5, 6}}};
    for (char* text : {c.areaText, c.ratioText, c.spareTextA, c.fitText, c.spareTextB, c.eccentricityText}) {
        std::memset(text, text == c.areaText ? 'a' : 'b', 100);
    }
    return c;
}

TEST(Corner, CopiesDeeplyAndMovesItsLists) {
    EXPECT_EQ(Corner().matchIndex, -1);
    const Corner source = filledCorner();
    Corner assigned;
    assigned = source;
    for (const Corner& copy : {Corner(source), assigned}) {
        EXPECT_EQ(copy.contour, source.contour);
        EXPECT_EQ(copy.scatter, source.scatter);
        EXPECT_NE(copy.scatter.data(), source.scatter.data());
        EXPECT_EQ(copy.conic, source.conic);
        EXPECT_EQ(copy.auxListB[0].values[2], 6);
        EXPECT_EQ(std::memcmp(copy.areaText, source.areaText, 600), 0);
    }
    Corner given = source;
    Corner target;
    target.scatter = Eigen::MatrixXd::Zero(2, 2);
    target.normal = {9, 9, 9};
    target = std::move(given);
    EXPECT_EQ(target.id, 7);
    EXPECT_EQ(target.contour, source.contour);
    EXPECT_EQ(target.scatter, source.scatter);
    EXPECT_EQ(std::memcmp(target.areaText, source.areaText, 600), 0);
    EXPECT_TRUE(given.contour.empty() && given.auxListA.empty() && given.auxListB.empty());  // NOLINT(bugprone-use-after-move)
    EXPECT_EQ(given.scatter.rows(), 2) << "swapped";
    EXPECT_EQ(given.normal, Eigen::Vector3d(9, 9, 9)) << "swapped";
    const Corner built(std::move(target));
    EXPECT_EQ(built.scatter, source.scatter);
    EXPECT_EQ(target.scatter.size(), 0);  // NOLINT(bugprone-use-after-move)
    EXPECT_TRUE(target.contour.empty());
}

TEST(Extractor, CopiesShareCalibrationAndOwnTheirScratch) {
    CircleMarkerExtractor extractor;
    EXPECT_TRUE(extractor.markerRects.empty() && extractor.markerName.empty() && extractor.rotation.empty());
    EXPECT_EQ(extractor.triangulationC.size(), 0);
    extractor.rotation = cv::Mat::eye(3, 3, CV_64F);
    extractor.triangulationA = Eigen::MatrixXd::Identity(3, 3);
    std::vector<Corner> corners;
    ASSERT_TRUE(extractor.CircleExtractSimple(test::discImage({80, 60}, {40, 30}, 8), corners, 0, test::discConfigs(true)));
    EXPECT_EQ(extractor.markerName, "dot");

    CircleMarkerExtractor copy(extractor), assigned;
    assigned = extractor;
    extractor.rotation.at<double>(0, 0) = 5;
    extractor.scratchLabels.resize(1);
    const CircleMarkerExtractor& self = extractor;
    extractor = self;
    for (CircleMarkerExtractor* other : {&copy, &assigned, &extractor}) {
        EXPECT_EQ(other->rotation.at<double>(0, 0), 5) << "shared";
        EXPECT_EQ(other->triangulationA, Eigen::MatrixXd::Identity(3, 3));
        EXPECT_EQ(other->rayDirections.size(), 72u);
        EXPECT_EQ(other->probeDirections.size(), 24u);
        EXPECT_EQ(other->scratchLabels.size(), other == &extractor ? 1u : 80u * 60u);
        EXPECT_EQ(other->markerName, "dot");
        EXPECT_EQ(other->markerRects.size(), 1u);
    }
    EXPECT_NE(copy.triangulationA.data(), extractor.triangulationA.data());
}

TEST(Extractor, SizesScratchToTheImageAndKeepsTheNameOnFailure) {
    CircleMarkerExtractor extractor;
    CicrleConfigs configs = test::discConfigs(true);
    configs.scale = 3;
    for (const cv::Size size : {cv::Size(200, 150), cv::Size(100, 50)}) {
        std::vector<Corner> corners;
        extractor.CircleExtractSimple(test::discImage(size, {50, 25}, 14), corners, 0, configs);
        EXPECT_EQ(extractor.scratchBlurFull.size(), static_cast<std::size_t>(size.area()));
        EXPECT_EQ(extractor.scratchBinary.size(), static_cast<std::size_t>(size.area()));
        const int reduced = (size.width / 3) * (size.height / 3);  // 33 by 16 for the second
        EXPECT_EQ(extractor.scratchEdgeMask.size(), static_cast<std::size_t>(reduced));
        EXPECT_EQ(extractor.scratchLabels.size(), static_cast<std::size_t>(reduced));
        EXPECT_EQ(extractor.rayDirections.size(), 72u);
    }
    configs.markerName = "other";
    std::vector<Corner> corners;
    extractor.markerName = "dot";
    extractor.markerRects.resize(4);
    EXPECT_FALSE(extractor.CircleExtractSimple(cv::Mat(50, 100, CV_8UC1, cv::Scalar(9)), corners, 0, configs));
    EXPECT_EQ(extractor.markerName, "dot");
    EXPECT_TRUE(extractor.markerRects.empty());
}

TEST(Extractor, MeasuresAColourImageLikeItsGreyOne) {
    cv::Mat colour;
    cv::merge(std::vector<cv::Mat>{test::discImage({120, 90}, {60.4, 44.7}, 11), test::discImage({120, 90}, {60.4, 44.7}, 11, 150),
                                   test::discImage({120, 90}, {60.4, 44.7}, 11, 180)},
              colour);
    cv::Mat grey;
    cv::cvtColor(colour, grey, cv::COLOR_BGR2GRAY);
    for (const bool radial : {false, true}) {
        CircleMarkerExtractor extractor;
        std::vector<Corner> fromColour, fromGrey;
        ASSERT_TRUE(extractor.CircleExtractSimple(colour, fromColour, 0, test::discConfigs(radial)));
        ASSERT_TRUE(extractor.CircleExtractSimple(grey, fromGrey, 0, test::discConfigs(radial)));
        ASSERT_EQ(fromColour.size(), 1u);
        EXPECT_EQ(fromColour[0].x, fromGrey[0].x);
        EXPECT_EQ(fromColour[0].contour, fromGrey[0].contour);
        EXPECT_NEAR(fromGrey[0].x, 60.4, radial ? 0.02 : 0.08);
        EXPECT_NEAR(fromGrey[0].y, 44.7, radial ? 0.02 : 0.08);
        EXPECT_EQ(fromGrey[0].conicValid, radial);
        EXPECT_EQ(extractor.markerRects[0].center.x, static_cast<float>(fromGrey[0].x));
    }
}

TEST(Extractor, UndistortsWithTheMatricesOfTheEye) {
    CircleMarkerExtractor extractor;
    const cv::Mat image = test::discImage({120, 90}, {60, 44}, 11);
    extractor.leftIntrinsic = (cv::Mat_<double>(3, 3) << 500, 0, 60, 0, 500, 44, 0, 0, 1);
    extractor.rightIntrinsic = extractor.leftIntrinsic.clone();
    extractor.rightIntrinsic.at<double>(0, 2) = 300;  // far off, so that its distortion shows
    extractor.leftDistortion = extractor.rightDistortion = (cv::Mat_<double>(1, 5) << -0.2, 0, 0, 0, 0);
    for (const bool radial : {false, true}) {
        CicrleConfigs configs = test::discConfigs(radial);
        configs.skipUndistort = false;
        for (const int camera : {0, 1, -1}) {
            std::vector<Corner> corners;
            ASSERT_TRUE(extractor.CircleExtractSimple(image, corners, camera, configs));
            const double u = 240.0 / 500;  // distance to the right eye's axis: x moves out by about 0.2 u^3 f and more
            EXPECT_NEAR(corners[0].x, camera == 0 ? 60 : 60 - 500 * 0.2 * u * u * u, camera == 0 ? 0.01 : 4) << camera;
        }
    }
}

TEST(FastPath, AppliesItsSwitchesAndBounds) {
    cv::Mat image(60, 120, CV_8UC1, cv::Scalar(100));  // 100 is background, 101 is not
    image(cv::Rect(10, 10, 11, 11)).setTo(101);        // contour through pixel centres: 10 x 10
    image(cv::Rect(50, 10, 41, 11)).setTo(255);        // 40 x 10
    using Change = void (*)(CicrleConfigs&);
    const struct {
        const char* what;
        Change change;
        std::vector<double> areas;
    } cases[] = {
        {"all switches off", [](CicrleConfigs&) {}, {400, 100}},
        {"area at its least",
         [](CicrleConfigs& c) {
             c.enableAreaFilter = true;
             c.minArea = 100;
             c.maxArea = 1000;
         },
         {400, 100}},
        {"area at its largest",
         [](CicrleConfigs& c) {
             c.enableAreaFilter = true;
             c.minArea = 0;
             c.maxArea = 400;
         },
         {100}},
        {"circularity",
         [](CicrleConfigs& c) {
             c.enableCircularityFilter = true;
             c.minCircularity = 0.6;
             c.maxCircularity = 1;
         },
         {100}},
        {"hull ratio",
         [](CicrleConfigs& c) {
             c.enableConvexityFilter = true;
             c.minConvexRatio = 1.01;
             c.maxConvexRatio = 2;
         },
         {}},
        {"eccentricity",
         [](CicrleConfigs& c) {
             c.enableEccentricityFilter = true;
             c.maxEccentricity = 0.5;
         },
         {100}},
    };
    const CircleMarkerExtractor fresh;
    for (const auto& c : cases) {
        CicrleConfigs configs{};
        c.change(configs);
        CircleMarkerExtractor extractor;
        std::vector<Corner> corners;
        const bool found = extractor.extractMarkPointsFast(image, corners, 0, configs);
        EXPECT_EQ(found, !c.areas.empty()) << c.what;
        std::vector<double> areas;
        for (const Corner& corner : corners) {
            areas.push_back(corner.area);
            EXPECT_NEAR(corner.y, 15, 1e-3);
            EXPECT_EQ(corner.eccentricity > 0, configs.enableEccentricityFilter && corner.area > 100) << c.what;
        }
        std::sort(areas.rbegin(), areas.rend());
        EXPECT_EQ(areas, c.areas) << c.what;
        EXPECT_TRUE(extractor.markerRects.empty() && extractor.markerName.empty());
    }
}

TEST(Logging, CutsPathsToTheirLastComponent) {
    const std::pair<const char*, const char*> cases[] = {
        {"a\\b/c.txt", "c.txt"}, {"a/b\\c.txt", "c.txt"}, {"c.txt", "c.txt"}, {"", ""}, {"dir/", ""}};
    for (const auto& [path, name] : cases) EXPECT_EQ(fileNameOf(path), name);
}

TEST(Logging, WritesOneLineOnStandardOutput) {
    const struct {
        int line, level;
        const char* shown;
    } cases[] = {{7, 3, "WARN  f.cpp:   7   text\n"},  {12345, 0, "NONE  f.cpp:12345   text\n"}, {2411, 1, "FATAL f.cpp:2411   text\n"},
                 {10, 2, "ERROR f.cpp:  10   text\n"}, {10, 4, "INFO  f.cpp:  10   text\n"},     {10, 99, "DEBUG f.cpp:  10   text\n"}};
    for (const auto& c : cases) {
        testing::internal::CaptureStdout();
        { Message("a/f.cpp", c.line, "native", c.level).text << "text"; }
        const std::string line = testing::internal::GetCapturedStdout();
        EXPECT_TRUE(std::regex_search(line, std::regex(R"(^ *\d+ [A-Z]\w\w \d\d \d{4} \d\d:\d\d:\d\d )"))) << line;
        EXPECT_GE(line.find(' ', 5), 6u) << "thread id is right-aligned in six places";
        EXPECT_EQ(line.substr(line.size() - std::strlen(c.shown)), c.shown);
    }
}

TEST(FrontDoor, WarnsOfTheEyeThatFailed) {
    CircleMarkerExtractor extractor;
    const cv::Mat empty(40, 40, CV_8UC1, cv::Scalar(10)), disc = test::discImage({80, 60}, {40, 30}, 8);
    for (const int camera : {0, 1, 2, -1}) {
        std::vector<Corner> corners;
        testing::internal::CaptureStdout();
        EXPECT_FALSE(ExtractCircleMarker(empty, extractor, corners, camera, test::discConfigs(camera == 1)));
        const std::string line = testing::internal::GetCapturedStdout();
        EXPECT_EQ(std::count(line.begin(), line.end(), '\n'), 1);
        const std::string expected =
            camera == 0
                ? "WARN  MarkerExtractor.cpp:2411   CircleMarkerExtractor: Please check the left eye camera, failed to extract Marker Points.\n"
                : "WARN  MarkerExtractor.cpp:2418   CircleMarkerExtractor: Please check the right eye camera, failed to extract Marker Points.\n";
        EXPECT_NE(line.find(expected), std::string::npos) << line;
        testing::internal::CaptureStdout();
        EXPECT_TRUE(ExtractCircleMarker(disc, extractor, corners, camera, test::discConfigs(camera == 1)));
        EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    }
}

TEST(Logging, ConcurrentReportsStayWholeLines) {
    testing::internal::CaptureStdout();
    {
        std::vector<std::jthread> threads;
        for (int t = 0; t < 4; ++t) {
            threads.emplace_back([] {
                for (int i = 0; i < 50; ++i) Message("f.cpp", 1, "native", 3).text << std::string(200, 'x');
            });
        }
    }
    std::istringstream all(testing::internal::GetCapturedStdout());
    int lines = 0;
    for (std::string line; std::getline(all, line); ++lines) {
        EXPECT_EQ(line.substr(line.find(" WARN ")), " WARN  f.cpp:   1   " + std::string(200, 'x'));
    }
    EXPECT_EQ(lines, 200);
}

}  // namespace
}  // namespace kestrune
