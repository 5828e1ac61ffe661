// SPDX-License-Identifier: Apache-2.0
// What the gradient chain of the edge-based path costs in one window, in vector code and as the plain rules state it.
#include <benchmark/benchmark.h>

#include <array>
#include <cstdint>
#include <opencv2/imgproc.hpp>
#include <vector>

#include "canny/fast_gaussian.h"
#include "ellipsedetection/gradient.h"
#include "ellipsedetection/gradient_plain.h"

namespace {

constexpr double kBackgroundGrey = 40, kDiscGrey = 180;
constexpr double kBlurSigma = 0.8, kNoiseSigma = 2.0;
constexpr std::uint64_t kSeed = 20;
// As in the ready settings for bright markers.
constexpr float kSigma = 1.3f, kPercentile = 0.85f, kNmsFactor = 0.96f;
constexpr int kImageWidth = 2448;  ///< px: windows lie in images of this width
constexpr int kAround = 8;         ///< px of the image above and below the window

/// A window around a bright disc that leaves it a margin, in working images of full width.
struct Window {
    explicit Window(int size)
        : rect(kImageWidth / 3, kAround, size, size),
          full{cv::Mat(size + 2 * kAround, kImageWidth, CV_16UC1, cv::Scalar(0)),
               cv::Mat(size + 2 * kAround, kImageWidth, CV_32FC1, cv::Scalar(0)),
               cv::Mat(size + 2 * kAround, kImageWidth, CV_32FC1, cv::Scalar(0)),
               cv::Mat(size + 2 * kAround, kImageWidth, CV_32FC1, cv::Scalar(0)),
               cv::Mat(size + 2 * kAround, kImageWidth, CV_8UC1, cv::Scalar(0))},
          blur16U(full[0](rect)),
          grad(full[1](rect)),
          dx(full[2](rect)),
          dy(full[3](rect)),
          mask(full[4](rect)) {
        cv::Mat grey(size, size, CV_32FC1, cv::Scalar(kBackgroundGrey)), noise(size, size, CV_32FC1);
        cv::circle(grey, cv::Point(size / 2, size / 2), size * 3 / 8, cv::Scalar(kDiscGrey), cv::FILLED);
        cv::GaussianBlur(grey, grey, cv::Size(), kBlurSigma);
        cv::RNG(kSeed).fill(noise, cv::RNG::NORMAL, 0, kNoiseSigma);
        cv::Mat image;
        cv::Mat(grey + noise).convertTo(image, CV_8U);
        kestrune::fastGaussianApprox(image, blur16U, kSigma);
        kestrune::calc_gradient(blur16U, grad, dx, dy, min, max);
        high = kestrune::calc_stable_edge_threshold(grad, min, max, kPercentile);
    }
    cv::Rect rect;
    std::array<cv::Mat, 5> full;
    cv::Mat blur16U, grad, dx, dy, mask;
    float min = 0, max = 0, high = 0;
    std::vector<int> strong, weak;
};

void gradient(benchmark::State& state, decltype(&kestrune::calc_gradient) routine) {
    Window w(static_cast<int>(state.range(0)));
    for ([[maybe_unused]] auto iteration : state) routine(w.blur16U, w.grad, w.dx, w.dy, w.min, w.max);
}

void thresholdVector(benchmark::State& state) {
    const Window w(static_cast<int>(state.range(0)));
    for ([[maybe_unused]] auto iteration : state)
        benchmark::DoNotOptimize(kestrune::calc_stable_edge_threshold(w.grad, w.min, w.max, kPercentile));
}

/// The histogram is all but a few hundred steps of the work.
void thresholdPlain(benchmark::State& state) {
    const Window w(static_cast<int>(state.range(0)));
    const float scale = kestrune::plain::kBins / (w.max - w.min);
    for ([[maybe_unused]] auto iteration : state)
        benchmark::DoNotOptimize(kestrune::plain::histogram(w.grad, w.min, scale));
}

void edgeMask(benchmark::State& state, decltype(&kestrune::find_edge_mask_nms) routine) {
    Window w(static_cast<int>(state.range(0)));
    for ([[maybe_unused]] auto iteration : state) {
        w.strong.clear();
        w.weak.clear();
        routine(w.grad, w.dx, w.dy, w.mask, w.strong, w.weak, w.high * 0.5f, w.high, kNmsFactor);
    }
    state.counters["strong"] = static_cast<double>(w.strong.size());
    state.counters["weak"] = static_cast<double>(w.weak.size());
}

void windowSizes(benchmark::internal::Benchmark* candidate) {
    candidate->Arg(64)->Arg(200)->Unit(benchmark::kMicrosecond);
}

BENCHMARK_CAPTURE(gradient, vector, kestrune::calc_gradient)->Apply(windowSizes);
BENCHMARK_CAPTURE(gradient, plain, kestrune::plain::calc_gradient)->Apply(windowSizes);
BENCHMARK(thresholdVector)->Apply(windowSizes);
BENCHMARK(thresholdPlain)->Apply(windowSizes);
BENCHMARK_CAPTURE(edgeMask, vector, kestrune::find_edge_mask_nms)->Apply(windowSizes);
BENCHMARK_CAPTURE(edgeMask, plain, kestrune::plain::find_edge_mask_nms)->Apply(windowSizes);

}  // namespace

BENCHMARK_MAIN();
