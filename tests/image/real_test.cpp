// SPDX-License-Identifier: Apache-2.0
//
// Real photographs, where they are at hand. They are no part of this project; without them each case is skipped by name.
#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>
#include <set>

#include "kestrune/MarkerExtractor.h"
#include "settings.h"

namespace kestrune::test::real {

struct RealImages : testing::TestWithParam<std::pair<measure::Path, const char*>> {
    static std::filesystem::path folder() { return KESTRUNE_REAL_IMAGES; }
    void SetUp() override {
        if (!std::filesystem::exists(folder())) GTEST_SKIP() << "no real images at " << folder();
    }
    static std::vector<Corner> markersIn(const cv::Mat& image, const std::string& kind) {
        const auto& [path, name] = GetParam();
        CicrleConfigs configs = measure::loadSettings(std::string(KESTRUNE_SETTINGS_DIR) + "/" + kind + "-" + name + ".yaml", path).configs;
        configs.skipUndistort = true;
        CircleMarkerExtractor extractor;
        std::vector<Corner> corners;
        ExtractCircleMarker(image, extractor, corners, 0, configs);
        return corners;
    }
};

/// Every centre has a neighbour one pitch along the row and along the column, as far as the grid goes: the only answer
/// that a ten by ten grid allows. `cv::findCirclesGrid` orders it; here its corners' homography does.
void expectTenByTenGrid(const std::vector<Corner>& corners, const std::string& name) {
    ASSERT_EQ(corners.size(), 100u) << name;
    std::vector<cv::Point2f> points, places;
    for (const Corner& c : corners) points.emplace_back(static_cast<float>(c.x), static_cast<float>(c.y));
    const auto extreme = [&points](float sx, float sy) {
        return *std::ranges::max_element(points, {}, [=](cv::Point2f p) { return sx * p.x + sy * p.y; });
    };
    const std::vector<cv::Point2f> grid{{0, 0}, {9, 0}, {9, 9}, {0, 9}};
    const std::vector<cv::Point2f> image{extreme(-1, -1), extreme(1, -1), extreme(1, 1), extreme(-1, 1)};
    cv::perspectiveTransform(points, places, cv::getPerspectiveTransform(image, grid));
    std::set<std::pair<int, int>> taken;
    for (const cv::Point2f& p : places) {
        EXPECT_LT(cv::norm(p - cv::Point2f(cv::Point(p))), 0.1) << name;  // rounded
        taken.emplace(cvRound(p.x), cvRound(p.y));
    }
    EXPECT_EQ(taken.size(), 100u) << name;
}

TEST_P(RealImages, AllDotsOfTheGridAndNothingElse) {
    int images = 0;
    for (const auto& entry : std::filesystem::directory_iterator(folder() / "dot-grid-stereo")) {
        if (entry.path().extension() != ".png") continue;
        cv::Mat image = cv::imread(entry.path(), cv::IMREAD_GRAYSCALE);
        if (GetParam().first != measure::Path::complex) image = 255 - image;  // the dots are dark
        expectTenByTenGrid(markersIn(image, "dot-grid"), entry.path().filename());
        ++images;
    }
    EXPECT_EQ(images, 10);
}

TEST_P(RealImages, HardNegativesAreReported) {
    for (const char* name : {"building.jpg", "left01.jpg"}) {
        const cv::Mat image = cv::imread(folder() / "no-markers" / name, cv::IMREAD_GRAYSCALE);
        ASSERT_FALSE(image.empty());
        const std::size_t count = markersIn(image, "bright").size();
        std::printf("%s, %s: %zu false\n", GetParam().second, name, count);
        EXPECT_LE(count, 25u) << name << ": hints at a gate that has gone";
    }
}

INSTANTIATE_TEST_SUITE_P(Fronts, RealImages,
                         testing::Values(std::pair(measure::Path::simple, "subpixel"), std::pair(measure::Path::radial, "radial"),
                                         std::pair(measure::Path::complex, "complex")),
                         [](const auto& front) { return std::string(front.param.second); });

}  // namespace kestrune::test::real
