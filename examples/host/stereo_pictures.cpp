// SPDX-License-Identifier: Apache-2.0
#include "stereo_pictures.h"

#include <fmt/format.h>

#include <algorithm>
#include <opencv2/imgproc.hpp>

namespace kestrune::host {
namespace {

constexpr int kDivider = 6;  // px between the eyes
const cv::Scalar kDividerColour(255, 255, 255);
// Neighbours in the list get hues far apart: this step, prime to the number of hues, comes back to the first after all.
constexpr int kHues = 12, kHueStep = 5;
constexpr double kHueRange = 180;  // of OpenCV's 8-bit hues
constexpr double kSaturation = 150;

cv::Scalar pairColour(std::size_t index) {
    const double hue = kHueRange / kHues * static_cast<double>(index * kHueStep % kHues);
    cv::Mat pixel(1, 1, CV_8UC3, cv::Scalar(hue, kSaturation, 255));
    cv::cvtColor(pixel, pixel, cv::COLOR_HSV2BGR);
    return cv::Scalar(pixel.at<cv::Vec3b>(0));
}

Mark rimMark(MarkKind kind, const std::string& label, const cv::RotatedRect& rim) {
    const bool wide = rim.size.width >= rim.size.height;
    return {kind,
            label,
            rim.center,
            0.5 * std::max(rim.size.width, rim.size.height),
            0.5 * std::min(rim.size.width, rim.size.height),
            rim.angle + (wide ? 0.0 : 90.0)};
}

cv::Mat sideBySide(const std::array<cv::Mat, 2>& images) {
    const cv::Size size = images[0].size();
    cv::Mat both(size.height, 2 * size.width + kDivider, CV_8UC3, kDividerColour);
    for (int eye = 0; eye < 2; ++eye) {
        const cv::Mat& image = images[static_cast<std::size_t>(eye)];
        cv::Mat colour = image;
        if (image.channels() == 1) cv::cvtColor(image, colour, cv::COLOR_GRAY2BGR);
        colour.copyTo(both(cv::Rect(cv::Point(eye * (size.width + kDivider), 0), size)));
    }
    return both;
}

}  // namespace

cv::Mat drawPairs(const std::array<cv::Mat, 2>& images, const StereoResult& result, const std::string& title,
                  const std::vector<std::string>& labels, const std::vector<int>& wrong,
                  const std::array<std::vector<Mark>, 2>& missed, bool againstTruth) {
    cv::Mat both = sideBySide(images);
    const cv::Point2d shift(images[0].cols + kDivider, 0);
    std::vector<Mark> marks;
    const auto add = [&](Mark mark, std::size_t eye, cv::Point2d centre) {
        mark.centre = eye == 0 ? centre : centre + shift;
        marks.push_back(std::move(mark));
    };
    for (std::size_t k = 0; k < result.markers.size(); ++k) {
        const StereoMarker& marker = result.markers[k];
        const bool isWrong = std::ranges::count(wrong, static_cast<int>(k)) > 0;
        for (std::size_t eye = 0; eye < 2; ++eye) {
            Mark mark = rimMark(isWrong ? MarkKind::wrong : MarkKind::paired,
                                labels.empty() ? fmt::format("{}", k) : labels[k], marker.rim[eye]);
            if (!isWrong) mark.colour = pairColour(k);
            mark.dashed = marker.polarity[eye] == Polarity::dark;
            add(std::move(mark), eye, marker.rim[eye].center);
        }
        if (isWrong) cv::line(both, marker.pixel[0], marker.pixel[1] + shift, cv::Scalar(60, 60, 255), 2, cv::LINE_AA);
    }
    for (std::size_t eye = 0; eye < 2; ++eye) {
        for (const cv::RotatedRect& rim : result.unmatched[eye])
            add(rimMark(MarkKind::unmatched, "", rim), eye, rim.center);
        for (const Mark& mark : missed[eye]) add(mark, eye, mark.centre);
    }
    Legend legend = {{MarkKind::paired, result.markers.size() - wrong.size()}};
    const auto dark =
        std::ranges::count_if(result.markers, [](const auto& m) { return m.polarity[0] == Polarity::dark; });
    if (dark > 0) legend.push_back({MarkKind::dark, static_cast<std::size_t>(dark)});
    if (againstTruth) {
        legend.push_back({MarkKind::missed, missed[0].size()});
        legend.push_back({MarkKind::wrong, wrong.size()});
    }
    legend.push_back({MarkKind::unmatched, result.unmatched[0].size() + result.unmatched[1].size()});
    return drawOverlay(both, marks, title, legend);
}

}  // namespace kestrune::host
