// SPDX-License-Identifier: Apache-2.0
//
// Rendered exposures with known truth, and the settings files that ship with kestrune-measure.
#include <gtest/gtest.h>

#include <cstdio>

#include <kestrune/MarkerMetrology.h>
#include "support/rigs.h"

namespace kestrune::test::rendered {

constexpr double kRadii[] = {6, 8, 12, 20, 30, 40};  // px

struct Front {
    const char* settings;
    bool mixed;        ///< every other marker is darker than its ground
    double rms[2][6];  ///< px, as measured for faint and for strong markers of each radius
};

class RenderedMarkers : public testing::TestWithParam<Front> {};

TEST_P(RenderedMarkers, AreAllFoundFromRadius6To40AndNothingElse) {
    const Front& front = GetParam();
    CicrleConfigs configs = readSettings(std::string(KESTRUNE_SETTINGS_DIR) + "/" + front.settings, {}).configs;
    configs.skipUndistort = false;
    const scene::Rig rig = scene::makeVergedRig({2448, 2048});
    CircleMarkerExtractor extractor = calibrated(rig);
    std::size_t truth = 0, found = 0;
    std::printf("%-24s radius  contrast  markers  found  false  centre RMS px  max px\n", front.settings);
    for (std::size_t k = 0; k < 12; ++k) {
        const bool isStrong = k >= 6;
        const double radius = kRadii[k % 6], contrast = !isStrong ? 60 : front.mixed ? 100 : 140;
        scene::RenderOptions options;
        options.background = front.mixed ? 110 : 50;
        auto discs = scene::makeScatteredDiscs(rig, 120, radius, radius, 35, options.background + contrast, 17);
        for (std::size_t n = 1; front.mixed && n < discs.size(); n += 2) discs[n].grey = options.background - contrast;
        const scene::Exposure exposure = scene::render(rig, discs, {}, options);
        std::vector<Corner> corners;
        ExtractCircleMarker(exposure.image[0], extractor, corners, 0, configs);
        std::vector<cv::Point2d> centres;
        for (const Corner& corner : corners) centres.emplace_back(corner.x, corner.y);
        const auto score = scene::scoreDetections(exposure.markers, 0, centres, true, 0.5 * radius);
        const std::size_t matches = score.matches.size(), markers = matches + score.missed.size(), wrong = score.falseOnes.size();
        std::printf("%31.0f  %8.0f  %7zu  %5zu  %5zu  %13.4f  %6.3f\n", radius, contrast, markers, matches, wrong, score.centreRms, score.centreMax);
        EXPECT_EQ(wrong, 0u) << radius;
        EXPECT_LT(score.centreRms, 1.3 * front.rms[isStrong][k % 6]) << radius << ", contrast " << contrast;
        truth += markers, found += matches;
    }
    EXPECT_GE(static_cast<double>(found), 0.995 * static_cast<double>(truth));
    EXPECT_GT(truth, 600u);
}

const Front kFronts[] = {{"bright-subpixel.yaml", false, {{.0679, .0497, .0387, .0271, .0204, .0192}, {.0580, .0459, .0316, .0256, .0169, .0173}}},
                         {"bright-radial.yaml", false, {{.0343, .0294, .0254, .0247, .0227, .0226}, {.0218, .0193, .0188, .0174, .0181, .0170}}},
                         {"mixed-complex.yaml", true, {{.0276, .0218, .0190, .0140, .0103, .0096}, {.0170, .0136, .0119, .0084, .0065, .0058}}}};
INSTANTIATE_TEST_SUITE_P(Fronts, RenderedMarkers, testing::ValuesIn(kFronts));

}  // namespace kestrune::test::rendered
