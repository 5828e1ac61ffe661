// SPDX-License-Identifier: Apache-2.0
#include "MarkerExtractor/extraction/rim_windows.h"

#include <algorithm>
#include <iterator>
#include <limits>
#include <opencv2/imgproc.hpp>

#include "ellipsedetection/contour_refinement.h"
#include "ellipsedetection/rim_search.h"
#include "parallel/parallel_loop.h"

namespace kestrune {

namespace {

constexpr std::int64_t kMostPerWindow = 1'000'000'000;  ///< ns: a window may be as large as the image

/// Pixels of a window from which it is left to the caller's thread: storage as large as the image for every thread
/// would be too much.
constexpr int kLargestShared = 1 << 20;

/// The smallest box that holds all lines, and the pixels around them.
cv::Rect boxAround(const std::vector<std::vector<cv::Point>>& lines) {
    cv::Rect all;
    for (const std::vector<cv::Point>& line : lines) all |= cv::boundingRect(line);
    return {all.x - 1, all.y - 1, all.width + 2, all.height + 2};
}

class FirstStage {
  public:
    FirstStage(const cv::Mat& grey, const RimWindows& windows, const RimSettings& settings, const RimGates& gates)
        : grey_(grey), windows_(windows), settings_(settings), sizes_(settings), gates_(gates) {}

    void judgeWindow(std::size_t index, RimThread& own, std::vector<PassedRim>& passed) const {
        const cv::Rect& place = windows_[index];
        const cv::Rect box = own.window.findEdges(grey_, place, settings_);
        if (box.empty()) return;
        const EdgeWindow& edges = own.window.images();
        cv::findContours(edges.mask(box), own.contours, own.hierarchy, cv::RETR_TREE, cv::CHAIN_APPROX_NONE);
        own.candidates.clear();
        appendSurvivors(own.contours, own.hierarchy, sizes_, place.tl() + box.tl(), own.candidates, nullptr);
        if (own.candidates.empty()) return;
        windows_.forEachLater(index, boxAround(own.candidates),
                              [&own](const cv::Rect& later) { own.window.takeGradientOf(later); });

        const RimImages images = {edges.blur16U, edges.grad, edges.dx, edges.dy, place.tl(), &windows_};
        for (const std::vector<cv::Point>& candidate : own.candidates) {
            RimVerdict verdict = judgeRim(candidate, images, gates_, own.gates);
            if (!verdict.accepted()) continue;
            std::vector<cv::Point2f> refined =
                refineContourInWindow(verdict.points, edges.grad, place.tl(), grey_.size());
            passed.push_back({0, std::move(verdict.ellipse), std::move(verdict.points), std::move(refined)});
        }
    }

  private:
    const cv::Mat& grey_;
    const RimWindows& windows_;
    const RimSettings& settings_;
    SizeGate sizes_;
    const RimGates& gates_;
};

}  // namespace

RimWindows::RimWindows(const cv::Mat& grey, const std::vector<cv::Rect>& blobs, const RimSettings& settings)
    : WholeImage(grey.size()), grey_(grey), sigma_(settings.sigma), topFrom_(blobs.size() + 1) {
    const int margin = windowMargin(settings.sigma);
    places_.reserve(blobs.size());
    for (const cv::Rect& blob : blobs) places_.push_back(windowOf(blob, settings.scale, margin, grey.size()));
    topFrom_.back() = std::numeric_limits<int>::max();
    for (std::size_t k = blobs.size(); k-- > 0;) topFrom_[k] = std::min(topFrom_[k + 1], places_[k].y);
}

cv::Mat RimWindows::smoothed(const cv::Rect& part) const {
    BoxScratch scratch;
    const cv::Mat all = smoothedWindow(grey_, part, sigma_, scratch);
    cv::Mat covered(part.size(), CV_16UC1, cv::Scalar(0));
    for (const cv::Rect& place : places_) {
        const cv::Rect shared = (place & part) - part.tl();
        if (!shared.empty()) all(shared).copyTo(covered(shared));
    }
    return covered;
}

std::vector<PassedRim> passRims(const cv::Mat& grey, const RimSettings& settings, const RimGates& gates,
                                RimStorage& storage) {
    const SizeGate sizes(settings);
    std::vector<cv::Rect> blobs;
    for (const BrightBlob& blob : storage.blobs) {
        if (!sizes.judgeBlob(blob.box, blob.area)) blobs.push_back(blob.box);
    }
    const RimWindows windows(grey, blobs, settings);
    const FirstStage stage(grey, windows, settings, gates);
    const auto team = static_cast<std::size_t>(largestTeam());
    if (storage.threads.size() < team) storage.threads.resize(team);
    std::vector<std::vector<PassedRim>> passed(blobs.size());
    forEachInParallel(static_cast<int>(blobs.size()), kMostPerWindow, [&](int item, int thread) {
        const auto index = static_cast<std::size_t>(item);
        if (windows[index].area() > kLargestShared) return;
        stage.judgeWindow(index, storage.threads[static_cast<std::size_t>(thread)], passed[index]);
    });
    for (std::size_t index = 0; index < blobs.size(); ++index) {
        if (windows[index].area() > kLargestShared) stage.judgeWindow(index, storage.threads[0], passed[index]);
    }
    std::vector<PassedRim> all;
    for (std::vector<PassedRim>& rims : passed) std::ranges::move(rims, std::back_inserter(all));
    return all;
}

}  // namespace kestrune
