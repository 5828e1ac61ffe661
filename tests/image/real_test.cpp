// SPDX-License-Identifier: Apache-2.0
//
// Real photographs, where they are at hand. They are no part of this project; without them each case is skipped by name.
#include <gtest/gtest.h>

#include <filesystem>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>
#include <set>

#include <kestrune/MarkerMetrology.h>
#include "kestrune/MarkerExtractor.h"

namespace kestrune::test::real {

const std::filesystem::path kFolder = KESTRUNE_REAL_IMAGES;

/// Of both tests the parameter is the path, by the last part of its settings' names.
struct RealImages : testing::TestWithParam<const char*> {
    void SetUp() override {
        if (!std::filesystem::exists(kFolder)) GTEST_SKIP() << "no real images at " << kFolder;
    }
    static std::vector<Corner> markersIn(const cv::Mat& image, const std::string& kind) {
        CicrleConfigs configs = readSettings(KESTRUNE_SETTINGS_DIR "/" + kind + "-" + GetParam() + ".yaml", {}).configs;
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
    for (const auto& entry : std::filesystem::directory_iterator(kFolder / "dot-grid-stereo")) {
        if (entry.path().extension() != ".png") continue;
        cv::Mat image = cv::imread(entry.path(), cv::IMREAD_GRAYSCALE);
        if (GetParam() != std::string("complex")) image = 255 - image;  // the dots are dark
        expectTenByTenGrid(markersIn(image, "dot-grid"), entry.path().filename());
        ++images;
    }
    EXPECT_EQ(images, 10);
}

TEST_P(RealImages, HardNegativesHaveFew) {
    for (const char* name : {"building.jpg", "left01.jpg"}) {
        const cv::Mat image = cv::imread(kFolder / "no-markers" / name, cv::IMREAD_GRAYSCALE);
        ASSERT_FALSE(image.empty());
        EXPECT_LE(markersIn(image, "bright").size(), 25u) << name << ": hints at a gate that has gone";
    }
}

INSTANTIATE_TEST_SUITE_P(Fronts, RealImages, testing::Values("subpixel", "radial", "complex"));

}  // namespace kestrune::test::real
