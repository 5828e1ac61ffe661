// SPDX-License-Identifier: Apache-2.0

#include "MarkerExtractor/extraction/explain.h"
#include "support/configs.h"

namespace kestrune::test::drops {

using C = CicrleConfigs;
enum Front { kSubpixel, kRadial, kEdgeBased, kHand, kFast };

std::vector<ExplainedCandidate> explain(Front front, const cv::Mat& image, const C& configs, Drops* drops) {
    CircleMarkerExtractor extractor;
    if (front == kHand) return explainHand(image, configs, drops);
    if (front == kFast) return explainFast(image, configs, drops);
    return explainExtraction(image, extractor, 0, configs, drops);
}

/// Centre, radius, grey on 40; ellipses, which are drawn without smoothing, as centre, half axes, grey.
cv::Mat scene(const std::vector<cv::Vec4d>& discs, const std::vector<cv::Vec<double, 5>>& ellipses = {}) {
    cv::Mat image(120, 160, CV_8UC1, cv::Scalar(40));
    for (const auto& d : discs) addDisc(image, {d[0], d[1]}, d[2], d[3], image.at<uchar>(cvRound(d[1]), cvRound(d[0])));
    for (const auto& e : ellipses) cv::ellipse(image, cv::RotatedRect(cv::Point2f(e[0], e[1]), cv::Size2f(2 * e[2], 2 * e[3]), 0), e[4], -1);
    return image;
}

TEST(Drops, EachCauseIsToldWithWhatWasMeasuredAndTheSettingsName) {
    struct Case {
        Front front;
        cv::Mat image;
        void (*change)(C&);
        DropCause cause;
        double low, high;  ///< of what is measured
        const char* wanted;
    };
    const cv::Mat disc = scene({{60, 60, 14, 200}}), faint = scene({{60, 60, 14, 70}}), edge = scene({{14, 60, 10, 200}});
    const cv::Mat bar = scene({}, {{60, 60, 40, 6, 200}}), line = scene({}, {{60, 60, 40, 1, 200}});
    cv::Mat half(120, 160, CV_8UC1, cv::Scalar(40));
    half.rowRange(60, 120) = 90, cv::circle(half, {60, 60}, 14, 200, -1);
    const cv::Mat ring = scene({{60, 60, 30, 200}, {60, 60, 12, 40}}), speck = scene({}, {{60, 60, 1, 1, 200}});
    cv::Mat arc(120, 160, CV_8UC1, cv::Scalar(40)), nested = scene({}, {{60, 60, 40, 40, 200}, {60, 60, 30, 30, 40}, {60, 60, 10, 10, 200}});
    cv::ellipse(arc, {60, 60}, {30, 30}, 0, 0, 300, 200, 1);
    const Case cases[] = {
        {kRadial, disc, [](C& c) { c.minContourSize = 5000; }, DropCause::kArea, 100, 900, "minContourSize 5000"},
        {kRadial, speck, [](C& c) { c.minContourSize = 1; }, DropCause::kSide, 1, 3, "4 or more"},
        {kRadial, bar, [](C&) {}, DropCause::kElongation, 4, 8, "3 times"},
        {kRadial, disc, [](C& c) { c.contrast = 220; }, DropCause::kRingContrast, 60, 160, "contrast 220"},
        {kRadial, half, [](C& c) { c.contrast = 112, c.thresholdC = -40; }, DropCause::kProbeContrast, 0.3, 0.79, "contrast 112"},
        {kRadial, edge, [](C&) {}, DropCause::kBorder, 0.1, 20, "1.25 times its half diagonal and 3 px on the image"},
        {kRadial, edge, [](C& c) { c.scale = 2, c.refineAtFullSize = true; }, DropCause::kWindow, 1, 20, "refineAtFullSize"},
        {kEdgeBased, disc, [](C& c) { c.minDiameter = 190; }, DropCause::kPixels, 50, 759, "minDiameter 190"},
        {kEdgeBased, disc, [](C& c) { c.maxDiameter = 10; }, DropCause::kPixels, 41, 900, "maxDiameter 10"},
        {kEdgeBased, disc, [](C& c) { c.aperture = 3, c.minDiameter = 34; }, DropCause::kPixels, 20, 140, "minDiameter 34"},
        {kEdgeBased, line, [](C& c) { c.maxDiameter = 70; }, DropCause::kLongerSide, 71, 90, "maxDiameter 70"},
        {kEdgeBased, bar, [](C& c) { c.minDiameter = 20; }, DropCause::kShorterSide, 8, 19, "minDiameter 20"},
        {kEdgeBased, bar, [](C&) {}, DropCause::kBoxRatio, 0.1, 0.3, "minAxisRatio 0.4"},
        {kEdgeBased, disc, [](C& c) { c.nmsFactor = 3; }, DropCause::kNoRim, 0, 40, "nmsFactor 3"},
        {kEdgeBased, scene({{2, 60, 14, 200}}), [](C&) {}, DropCause::kOpenLine, 1, 200, "nmsFactor 0.95"},
        {kSubpixel, disc, [](C& c) { c.minContourSize = 500; }, DropCause::kLength, 60, 110, "minContourSize 500"},
        {kSubpixel, arc, [](C&) {}, DropCause::kOpenContour, 60, 600, "cannyLow 10"},
        {kSubpixel, ring, [](C&) {}, DropCause::kFrame, 60, 90, "minContourSize 12"},
        {kSubpixel, faint, [](C& c) { c.cannyHigh = 60; }, DropCause::kWeakEdge, 20, 40, "cannyHigh 60"},
        {kHand, scene({{60, 60, 14, 140}}), [](C&) {}, DropCause::kWeakStep, 50, 124, "fixed"},
        {kFast, nested, [](C&) {}, DropCause::kInside, 250, 350, "outermost"},
        {kFast, faint, [](C&) {}, DropCause::kGreyLevel, 60, 60, "a threshold of 100"},
    };
    for (const Case& one : cases) {
        C configs = one.front == kEdgeBased ? rimConfigs() : discConfigs(one.front == kRadial);
        one.change(configs);
        cv::Mat image = one.image;
        if (one.front == kHand) cv::cvtColor(one.image, image, cv::COLOR_GRAY2BGR);
        Drops drops;
        explain(one.front, image, configs, &drops);
        SCOPED_TRACE(testing::Message() << "front " << one.front << ", cause " << static_cast<int>(one.cause));
        const auto found = std::ranges::find(drops, one.cause, &Drop::cause);
        ASSERT_NE(found, drops.end()) << drops.size();
        EXPECT_GE(found->measured, one.low);
        EXPECT_LE(found->measured, one.high);
        EXPECT_NE(describe(*found, configs).wanted.find(one.wanted), std::string::npos) << describe(*found, configs).wanted;
    }
}

}  // namespace kestrune::test::drops
