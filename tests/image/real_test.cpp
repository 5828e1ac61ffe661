// SPDX-License-Identifier: Apache-2.0
//
// Real photographs, where they are at hand. They are no part of this project; without them each case is skipped by name.
#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include "kestrune/MarkerExtractor.h"
#include "settings.h"

namespace kestrune {
namespace {

struct Front {
    host::Path path;
    const char* name;
};

class RealImages : public testing::TestWithParam<Front> {
  protected:
    static std::filesystem::path folder() { return KESTRUNE_REAL_IMAGES; }
    void SetUp() override {
        if (!std::filesystem::exists(folder())) GTEST_SKIP() << "no real images at " << folder();
    }
    static CicrleConfigs settings(const std::string& kind) {
        const std::string file = std::string(KESTRUNE_SETTINGS_DIR) + "/" + kind + "-" + GetParam().name + ".yaml";
        CicrleConfigs configs = host::loadSettings(file, GetParam().path).configs;
        configs.skipUndistort = true;
        return configs;
    }
};

/// Every centre has a neighbour one pitch along the row and along the column, as far as the grid goes: the only answer
/// that a ten by ten grid allows. `cv::findCirclesGrid` orders it; here its corners' homography does.
void expectTenByTenGrid(const std::vector<Corner>& corners, const std::string& name) {
    ASSERT_EQ(corners.size(), 100u) << name;
    std::vector<cv::Point2f> points, hull;
    for (const Corner& c : corners) points.emplace_back(static_cast<float>(c.x), static_cast<float>(c.y));
    const auto extreme = [&points](float sx, float sy) {
        return *std::max_element(points.begin(), points.end(),
                                 [=](const auto& a, const auto& b) { return sx * a.x + sy * a.y < sx * b.x + sy * b.y; });
    };
    const std::vector<cv::Point2f> grid{{0, 0}, {9, 0}, {9, 9}, {0, 9}};
    const std::vector<cv::Point2f> image{extreme(-1, -1), extreme(1, -1), extreme(1, 1), extreme(-1, 1)};
    std::vector<cv::Point2f> places;
    cv::perspectiveTransform(points, places, cv::getPerspectiveTransform(image, grid));
    std::vector<int> taken(100, 0);
    for (const cv::Point2f& p : places) {
        const int column = cvRound(p.x), row = cvRound(p.y);
        EXPECT_LT(std::hypot(p.x - static_cast<float>(column), p.y - static_cast<float>(row)), 0.1) << name;
        if (column >= 0 && column < 10 && row >= 0 && row < 10) ++taken[10 * static_cast<std::size_t>(row) + static_cast<std::size_t>(column)];
    }
    EXPECT_EQ(std::count(taken.begin(), taken.end(), 1), 100) << name;
}

TEST_P(RealImages, AllDotsOfTheGridAndNothingElse) {
    const CicrleConfigs configs = settings("dot-grid");
    int images = 0;
    for (const auto& entry : std::filesystem::directory_iterator(folder() / "dot-grid-stereo")) {
        if (entry.path().extension() != ".png") continue;
        cv::Mat image = cv::imread(entry.path(), cv::IMREAD_GRAYSCALE);
        if (!configs.useComplexExtract) image = 255 - image;  // the dots are dark
        CircleMarkerExtractor extractor;
        std::vector<Corner> corners;
        ExtractCircleMarker(image, extractor, corners, 0, configs);
        expectTenByTenGrid(corners, entry.path().filename());
        ++images;
    }
    EXPECT_EQ(images, 10);
}

TEST_P(RealImages, HardNegativesAreReported) {
    const CicrleConfigs configs = settings("bright");
    for (const char* name : {"building.jpg", "left01.jpg"}) {
        const cv::Mat image = cv::imread(folder() / "no-markers" / name, cv::IMREAD_GRAYSCALE);
        ASSERT_FALSE(image.empty());
        CircleMarkerExtractor extractor;
        std::vector<Corner> corners;
        ExtractCircleMarker(image, extractor, corners, 0, configs);
        std::printf("%s, %s: %zu false\n", GetParam().name, name, corners.size());
        EXPECT_LE(corners.size(), 25u) << name << ": hints at a gate that has gone";
    }
}

INSTANTIATE_TEST_SUITE_P(Fronts, RealImages,
                         testing::Values(Front{host::Path::simple, "subpixel"}, Front{host::Path::radial, "radial"},
                                         Front{host::Path::complex, "complex"}),
                         [](const auto& front) { return std::string(front.param.name); });

}  // namespace
}  // namespace kestrune
