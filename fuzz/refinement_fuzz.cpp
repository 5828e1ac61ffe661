// SPDX-License-Identifier: Apache-2.0
//
// Markers of small images fitted to their grey levels, from records with any numbers, and what is made of the
// estimates: whatever a host hands over, it gets complete results or a refusal that names what is wrong.
#include <kestrune/MarkerMetrology/discs.h>

#include <cmath>
#include <opencv2/imgproc.hpp>

#include "estimates.h"
#include "promises.h"

namespace kestrune::fuzz {
namespace {

constexpr int kLargestSide = 64;

cv::Mat drawnImage(Input& input) {
    const bool isDeep = input.flag();
    const double unit = isDeep ? 257 : 1;
    cv::Mat image(input.whole(1, kLargestSide), input.whole(1, kLargestSide), CV_32F,
                  cv::Scalar(unit * input.whole(0, 255)));
    constexpr int kShift = 4;
    for (int k = input.whole(0, 4); k > 0; --k) {
        const cv::Point at(input.whole(-5, image.cols + 5), input.whole(-5, image.rows + 5));
        const cv::Size axes(input.whole(1, 25), input.whole(1, 25));
        const cv::Scalar level(unit * input.whole(-20, 275));
        if (input.whole(0, 3) > 0) {
            cv::ellipse(image, at * (1 << kShift) + cv::Point(input.whole(0, 15), 0), axes * (1 << kShift),
                        input.whole(0, 180), 0, 360, level, cv::FILLED, cv::LINE_8, kShift);
        } else {
            cv::rectangle(image, cv::Rect(at, axes), level, cv::FILLED);
        }
    }
    if (input.flag()) cv::GaussianBlur(image, image, {}, input.isOdd() ? 7 : 0.4 * input.whole(1, 4));
    if (const int noise = input.isOdd() ? 128 : input.whole(0, 8); noise > 0) {
        cv::Mat added(image.size(), CV_32F);
        cv::RNG(static_cast<std::uint64_t>(noise)).fill(added, cv::RNG::NORMAL, 0, noise * (input.flag() ? 1 : unit));
        image += added;
    }
    const int channels = input.isOdd() ? input.whole(1, 4) : 1;
    cv::merge(std::vector<cv::Mat>(static_cast<std::size_t>(channels), image), image);
    image.convertTo(image, input.isOdd() ? input.whole(0, 6) : isDeep ? CV_16U : CV_8U);
    if (input.isOdd()) image.release();
    return image;
}

std::vector<Corner> drawnRecords(Input& input, const cv::Size& size) {
    std::vector<Corner> corners;
    for (int k = input.whole(0, 5); k > 0; --k) {
        if (corners.empty() || !input.isOdd()) {
            corners.push_back(drawnRecord(input, size));
        } else {
            corners.push_back(corners.back());
        }
    }
    return corners;
}

Record recordOf(const std::vector<MarkerEstimate>& list) {
    Record result;
    for (const MarkerEstimate& e : list) record(result, "estimates", e);
    return result;
}

void requireComplete(const MarkerEstimate& e) {
    require(*nameOf(e.status) != '\0', "a status has a name");
    const AxisSigmas sigmas = axisSigmas(e);
    require(std::isnan(e.covariance(2, 2)) == std::isnan(sigmas.major), "no sigma without a covariance");
    require(sigmas.angle >= 0 && sigmas.angle < 0.91, "an angle is known to half a turn");
    if (!e.isRefined()) {
        require(std::isnan(e.inside) && std::isnan(e.blur), "no light without a fit");
        return;
    }
    require(isEllipse(e), "a refined marker is an ellipse");
    for (const double value : {e.inside, e.outside, e.noise, e.residual})
        require(std::isfinite(value), "a refined marker has levels");
    require(e.inside != e.outside && e.blur >= 0.2 && e.blur <= 8, "a refined marker has contrast and blur");
    requireCovariance(e.covariance);
}

std::vector<MarkerEstimate> checkFits(Input& input) {
    const cv::Mat image = drawnImage(input);
    std::vector<Corner> corners = drawnRecords(input, image.size());
    RefinementOptions options;
    if (input.flag()) options.camera = drawnCamera(input);
    if (input.flag()) options.recordSize = {input.integer(0, 80), input.integer(0, 80)};
    options.mostLightDegree = input.integer(0, 2);

    const Circumstances circumstances{.manyThreads = input.flag(), .imagesAreWindows = input.flag()};
    std::vector<MarkerEstimate> list, same;
    setThreads({});
    if (!isAnswered([&] { list = refineMarkers(image, corners, options); })) {
        corners.clear();
        require(!isAnswered([&] { refineMarkers(image, corners, options); }), "it is refused before anything is done");
        return {};
    }
    require(list.size() == corners.size(), "an estimate for each record");
    for (const MarkerEstimate& e : list) requireComplete(e);
    setThreads(circumstances);
    const cv::Mat window = circumstances.imageOf(image);
    std::reverse(corners.begin(), corners.end());
    same = refineMarkers(window, corners, options);
    std::reverse(same.begin(), same.end());
    requireSame(recordOf(list), recordOf(same), "the same in any order, by any number of threads, in a window");

    for (std::size_t i = 0; i < list.size(); ++i) {
        Corner& c = corners[corners.size() - 1 - i];
        updateCorner(c, list[i]);
        require(!list[i].isRefined() || (c.conicValid && std::isfinite(c.fitResidual) && c.contour.size() >= 48),
                "a refined marker has a conic and a contour");
    }
    return list;
}

/// Of the fit, or of a host.
MarkerEstimate estimateFor(Input& input, const std::vector<MarkerEstimate>& list) {
    if (!list.empty() && input.flag()) return input.oneOf(list);
    return drawnEstimate(input);
}

void checkOne(Input& input) {
    const std::vector<MarkerEstimate> list = checkFits(input);
    for (int k = input.whole(0, 2); k > 0; --k) {
        const Camera camera = drawnCamera(input);
        const MarkerEstimate e = estimateFor(input, list);
        MarkerEstimate back;
        if (!isAnswered([&] { back = undistorted(e, camera); })) continue;
        axisSigmas(back);
        require(back.status == e.status || back.status == RefinementStatus::notConverged, "a lens refines nothing");
        Corner c;
        updateCorner(c, back);
        require(!c.conicValid || (std::isfinite(c.x) && std::isfinite(c.y)), "no place without a number");
    }
    if (!input.flag()) return;
    const std::array<MarkerEstimate, 2> eyes = {estimateFor(input, list), estimateFor(input, list)};
    const RigMatrices rig = drawnRig(input);
    DiscEstimate disc;
    if (isAnswered([&] { disc = measureDisc(eyes, rig); })) checkDisc(disc);
}

}  // namespace
}  // namespace kestrune::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    kestrune::fuzz::Input input(data, size);
    kestrune::fuzz::checkOne(input);
    return 0;
}
