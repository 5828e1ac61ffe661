// SPDX-License-Identifier: Apache-2.0
#include "stereo_pictures.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <map>
#include <opencv2/imgproc.hpp>

#include "error_marks.h"

namespace kestrune::measure {
namespace {

constexpr int kDivider = 6;  // px between the eyes
const cv::Scalar kDividerColour(255, 255, 255);
// Neighbours in the list get hues far apart: this step, prime to the number of hues, comes back to the first after all.
constexpr int kHues = 12, kHueStep = 5;
constexpr double kHueRange = 180;  // of OpenCV's 8-bit hues
constexpr double kSaturation = 150;
const cv::Scalar kDoubt(0, 200, 255);      // of the marks of pairs in doubt
constexpr std::size_t kMostJoined = 60;    // pairs and rivals: more lines than these are one tangle
constexpr std::ptrdiff_t kMostDoubts = 3;  // numbers of a label

cv::Scalar pairColour(std::size_t index) {
    const double hue = kHueRange / kHues * static_cast<double>(index * kHueStep % kHues);
    cv::Mat pixel(1, 1, CV_8UC3, cv::Scalar(hue, kSaturation, 255));
    cv::cvtColor(pixel, pixel, cv::COLOR_HSV2BGR);
    return cv::Scalar(pixel.at<cv::Vec3b>(0));
}

/// For each marker of an eye, the numbers of the pairs in doubt that it may be in.
std::map<int, std::string> doubtLabels(const TrustedResult& trusted, std::size_t eye) {
    std::map<int, std::vector<std::size_t>> pairs;
    for (std::size_t k = 0; k < trusted.ambiguous.size(); ++k) {
        const AmbiguousPair& pair = trusted.ambiguous[k];
        pairs[pair.marker.number[eye]].push_back(k);
        for (const StereoMarker& rival : pair.rivals)
            if (rival.number[eye] != pair.marker.number[eye]) pairs[rival.number[eye]].push_back(k);
    }
    std::map<int, std::string> labels;
    for (const auto& [number, numbers] : pairs) {
        const bool many = std::ssize(numbers) > kMostDoubts;
        const std::vector shown(numbers.begin(), many ? numbers.begin() + kMostDoubts : numbers.end());
        labels[number] = fmt::format("?{}{}", fmt::join(shown, " "), many ? ".." : "");
    }
    return labels;
}

void addUnmatched(std::vector<Mark>& marks, const SideBySide& both, const StereoResult& result, std::size_t eye) {
    std::map<int, std::string> labels;
    if (result.trusted) labels = doubtLabels(*result.trusted, eye);
    for (const UnmatchedMarker& m : result.unmatched[eye]) {
        const bool doubtful = m.standing != nullptr && m.partner >= 0;
        marks.push_back(both.mark(eye, doubtful ? MarkKind::ambiguous : MarkKind::unmatched,
                                  doubtful ? labels[m.number] : "", m.rim));
    }
}

}  // namespace

SideBySide::SideBySide(const std::array<cv::Mat, 2>& images) : shift(images[0].cols + kDivider, 0) {
    const cv::Size size = images[0].size();
    image = cv::Mat(size.height, 2 * size.width + kDivider, CV_8UC3, kDividerColour);
    for (int eye = 0; eye < 2; ++eye) {
        const cv::Mat& one = images[static_cast<std::size_t>(eye)];
        cv::Mat colour = one;
        if (one.channels() == 1) cv::cvtColor(one, colour, cv::COLOR_GRAY2BGR);
        colour.copyTo(image(cv::Rect(cv::Point(eye * (size.width + kDivider), 0), size)));
    }
}

Mark SideBySide::mark(std::size_t eye, MarkKind kind, const std::string& label, const cv::RotatedRect& rim) const {
    const bool wide = rim.size.width >= rim.size.height;
    return {kind,
            label,
            eye == 0 ? cv::Point2d(rim.center) : cv::Point2d(rim.center) + shift,
            0.5 * std::max(rim.size.width, rim.size.height),
            0.5 * std::min(rim.size.width, rim.size.height),
            rim.angle + (wide ? 0.0 : 90.0)};
}

void drawRivals(const SideBySide& both, const StereoResult& result) {
    if (!result.trusted) return;
    std::size_t count = 0;
    for (const AmbiguousPair& pair : result.trusted->ambiguous) count += 1 + pair.rivals.size();
    if (count > kMostJoined) return;
    cv::Mat image = both.image;
    const auto join = [&](const StereoMarker& m, int thickness) {
        cv::line(image, m.pixel[0], m.pixel[1] + both.shift, kDoubt, thickness, cv::LINE_AA);
    };
    for (const AmbiguousPair& pair : result.trusted->ambiguous) {
        for (const StereoMarker& rival : pair.rivals) join(rival, 1);
        join(pair.marker, 2);
    }
}

cv::Mat drawPairs(const std::array<cv::Mat, 2>& images, const StereoResult& result, const std::string& title,
                  const std::vector<std::string>& labels, const std::vector<int>& wrong,
                  const std::array<std::vector<Mark>, 2>& missed, bool againstTruth) {
    const SideBySide both(images);
    drawRivals(both, result);
    std::vector<Mark> marks;
    for (std::size_t k = 0; k < result.markers.size(); ++k) {
        const StereoMarker& marker = result.markers[k];
        const bool isWrong = std::ranges::count(wrong, static_cast<int>(k)) > 0;
        for (std::size_t eye = 0; eye < 2; ++eye) {
            Mark mark = both.mark(eye, isWrong ? MarkKind::wrong : MarkKind::paired,
                                  labels.empty() ? fmt::format("{}", k) : labels[k], marker.rim[eye]);
            if (marker.estimate && result.refined && !isWrong) addError(mark, marker.estimate->eyes[eye]);
            if (mark.kind == MarkKind::paired) mark.colour = pairColour(k);
            mark.dashed = marker.polarity[eye] == Polarity::dark;
            marks.push_back(std::move(mark));
        }
        if (isWrong)
            cv::line(both.image, marker.pixel[0], marker.pixel[1] + both.shift, cv::Scalar(60, 60, 255), 2,
                     cv::LINE_AA);
    }
    for (std::size_t eye = 0; eye < 2; ++eye) {
        addUnmatched(marks, both, result, eye);
        for (Mark mark : missed[eye]) {
            if (eye == 1) mark.centre += both.shift;
            marks.push_back(std::move(mark));
        }
    }
    const auto countOf = [&](MarkKind kind) {
        return static_cast<std::size_t>(std::ranges::count(marks, kind, &Mark::kind));
    };
    Legend legend = {{MarkKind::paired, result.markers.size() - wrong.size()}};
    const auto dark =
        std::ranges::count_if(result.markers, [](const auto& m) { return m.polarity[0] == Polarity::dark; });
    if (dark > 0) legend.push_back({MarkKind::dark, static_cast<std::size_t>(dark)});
    if (againstTruth) {
        legend.push_back({MarkKind::missed, missed[0].size()});
        legend.push_back({MarkKind::wrong, wrong.size()});
    }
    if (result.trusted) legend.push_back({MarkKind::ambiguous, result.trusted->ambiguous.size()});
    legend.push_back({MarkKind::unmatched, countOf(MarkKind::unmatched)});
    const std::size_t unrefined = countOf(MarkKind::unrefined);
    if (unrefined > 0) legend.push_back({MarkKind::unrefined, unrefined, "in one eye not refined"});
    MarkStyle style;
    style.errorScale = errorScaleOf(marks);
    return drawOverlay(both.image, marks, title + errorCaption(style.errorScale), legend, style);
}

std::optional<cv::Matx33d> spreadOf(const StereoMarker& marker) {
    if (!marker.estimate || !marker.estimate->disc.found) return std::nullopt;
    const auto& eyes = marker.estimate->eyes;
    if (!eyes[0].isRefined() || !eyes[1].isRefined()) return std::nullopt;
    return marker.estimate->disc.centreCovariance();
}

cv::Mat drawPoints(const StereoResult& result, const std::string& title) {
    if (!result.failure.empty() || result.markers.empty()) return {};
    const double nearest =
        std::ranges::min(result.markers, {}, [](const StereoMarker& m) { return m.point[2]; }).point[2];
    std::vector<ViewDisc> discs;
    for (const StereoMarker& m : result.markers)
        discs.push_back(
            {fmt::format("{}", discs.size()), m.point, m.normal, m.radius, m.point[2] - nearest, spreadOf(m)});
    if (result.trusted) {
        for (const AmbiguousPair& pair : result.trusted->ambiguous) {
            const StereoMarker& m = pair.marker;
            discs.push_back({fmt::format("?{}", discs.size() - result.markers.size()), m.point, m.normal, m.radius, 0});
            discs.back().doubtful = true;
            for (const StereoMarker& rival : pair.rivals) discs.back().rivals.push_back(rival.point);
        }
    }
    return drawView(discs, {title, "behind the nearest", ""});
}

}  // namespace kestrune::measure
