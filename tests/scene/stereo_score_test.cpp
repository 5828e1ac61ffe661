// SPDX-License-Identifier: Apache-2.0
#include "kestrune_scene/stereo_score.h"

#include <gtest/gtest.h>

namespace kestrune::scene::stereo_score_test {

/// Measurements with known faults: the score must name exactly these.
TEST(StereoScore, FindsWhatIsWrongAndHowMuch) {
    const Rig rig = makeVergedRig({1200, 1000});
    const Exposure exposure = render(rig, makeCurvedObject(rig, 12, 3, 5, 200, 4), {}, {});
    ASSERT_EQ(exposure.markers.size(), 12u);
    std::vector<MeasuredMarker> measured;
    for (const auto& [id, disc, eye] : exposure.markers) {
        const cv::Vec3d tilt = cv::normalize(disc.normal.cross(cv::Vec3d(0, 1, 0)));
        measured.push_back({{eye[0].projectedCentre + cv::Point2d(0.3, 0.4), eye[1].projectedCentre},
                            disc.centre + cv::Vec3d(0, 0.2, 0),
                            disc.normal + tilt * std::tan(0.1),
                            disc.radius - 0.05});
    }
    std::swap(measured[2].pixel[1], measured[7].pixel[1]);  // two pairs of different markers
    measured[5].pixel[0].x += 30;                           // one of nothing
    measured.push_back(measured[0]);                        // one marker twice
    measured[0].point[0] += 1, measured[0].pixel[0] += cv::Point2d(0.1, 0.1), measured[1].point[2] += std::sqrt(0.36 - 0.04);
    const StereoScore score = scoreStereo(exposure, measured, PixelMeaning::projectedCentre, 3);
    EXPECT_EQ(score.wrong, (std::vector<int>{0, 2, 5, 7}));  // the nearer of the two claims on marker 0 counts
    EXPECT_EQ(score.missed, (std::vector<int>{2, 5, 7}));
    EXPECT_TRUE(score.matches.size() == 9 && score.matches[0].measured == 12);
    const cv::Vec6d actual(score.pointMax, score.pointRms, score.radiusMean, score.centreRms[0], score.centreRms[1], score.normalRms * CV_PI / 180);
    EXPECT_LT(cv::norm(actual, cv::Vec6d(0.6, std::sqrt((8 * 0.04 + 0.36) / 9), -0.05, 0.5, 0, 0.1), cv::NORM_INF), 1e-9);
    EXPECT_GT(scoreStereo(exposure, measured, PixelMeaning::ellipseCentre, 3).centreRms[1], 1e-3);
}

/// A parallel pair, a point straight ahead of the left eye: s px in each coordinate give z^2 / (f b) sqrt(2) s in depth,
/// z / f s across and, being seen by both eyes, z / f s / sqrt(2) along the rows' normal.
TEST(StereoScore, ImpliedErrorIsThatOfTheTextbook) {
    Rig rig;
    rig.left.intrinsic = rig.right.intrinsic = {1000, 0, 500, 0, 1000, 400, 0, 0, 1};
    rig.right.translation = {-100, 0, 0};
    const double s = 0.02, expected = s * std::sqrt(2 * 10 * 10 + 1 + 0.5), rms = std::sqrt(2.0) * s;
    EXPECT_NEAR(impliedPointError(rig, {cv::Point2d(500, 400), {400, 400}}, {rms, rms}), expected, 1e-3 * expected);
}

}  // namespace kestrune::scene::stereo_score_test
