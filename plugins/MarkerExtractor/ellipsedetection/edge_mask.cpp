// SPDX-License-Identifier: Apache-2.0
#include "ellipsedetection/edge_mask.h"

#include <bit>

#include "ellipsedetection/gradient_plain.h"
#include "ellipsedetection/vector_lanes.h"
#include "logging/report_sites.h"

namespace kestrune {

namespace {

constexpr int kLeastRows = 5;         ///< a pixel that is judged needs two rows on either side
constexpr int kPixelsPerEntry = 200;  ///< by which a new list's room is estimated

void prepareList(std::vector<int>& list, const cv::Mat& image) {
    if (list.capacity() == 0) {
        list.reserve(static_cast<std::size_t>(image.rows) * static_cast<std::size_t>(image.cols) / kPixelsPerEntry);
    } else {
        list.clear();
    }
}

#if KESTRUNE_EXACT_LANES
/// Of four pixels: one bit for each that is an edge, and one for each above the upper threshold.
struct FourPixels {
    unsigned edges, strong;
};

/// `plain::EdgeRow::isMaximum` with all that goes before it, for four pixels.
FourPixels judgeFour(const plain::EdgeRow& row, int x) {
    const float* const g = row.grad + x;
    const float* const above = g - row.stride;
    const float* const below = g + row.stride;
    const cv::v_float32x4 dx = cv::v_load(row.dx + x);
    const cv::v_float32x4 dy = cv::v_load(row.dy + x);
    const cv::v_float32x4 ax = cv::v_abs(dx);
    const cv::v_float32x4 ay = cv::v_abs(dy);
    const cv::v_float32x4 here = cv::v_load(g);
    const cv::v_float32x4 component = cv::v_setall_f32(plain::kLeastComponent);
    const cv::v_float32x4 isCandidate = (here > cv::v_setall_f32(row.low)) & ((ax > component) | (ay > component));

    const cv::v_float32x4 zero = cv::v_setzero_f32();
    const cv::v_float32x4 isSteep = ax <= ay;
    const cv::v_float32x4 signsDiffer = (dx >= zero) ^ (dy >= zero);
    const cv::v_float32x4 weight = cv::v_select(isSteep, ax, ay) / cv::v_select(isSteep, ay, ax);
    const cv::v_float32x4 rest = cv::v_setall_f32(1.0f) - weight;
    const cv::v_float32x4 aboveRight = cv::v_load(above + 1);
    const cv::v_float32x4 belowLeft = cv::v_load(below - 1);
    const cv::v_float32x4 axialAhead = cv::v_select(isSteep, cv::v_load(below), cv::v_load(g + 1));
    const cv::v_float32x4 axialBehind = cv::v_select(isSteep, cv::v_load(above), cv::v_load(g - 1));
    const cv::v_float32x4 diagonalAhead =
        cv::v_select(signsDiffer, cv::v_select(isSteep, belowLeft, aboveRight), cv::v_load(below + 1));
    const cv::v_float32x4 diagonalBehind =
        cv::v_select(signsDiffer, cv::v_select(isSteep, aboveRight, belowLeft), cv::v_load(above - 1));
    const cv::v_float32x4 factor = cv::v_setall_f32(row.nmsFactor);
    const cv::v_float32x4 ahead = (weight * axialAhead + rest * diagonalAhead) * factor;
    const cv::v_float32x4 behind = (weight * axialBehind + rest * diagonalBehind) * factor;
    return {static_cast<unsigned>(cv::v_signmask(isCandidate & (here > ahead) & (here > behind))),
            static_cast<unsigned>(cv::v_signmask(here > cv::v_setall_f32(row.high)))};
}

/// Groups without a pixel above `low` are passed over together.
void judgeGroups(const plain::EdgeRow& row, int grouped) {
    const cv::v_float32x4 low = cv::v_setall_f32(row.low);
    for (int x = 2; x < grouped; x += plain::kGroup) {
        if (!cv::v_check_any((cv::v_load(row.grad + x) > low) | (cv::v_load(row.grad + x + 4) > low))) continue;
        const FourPixels left = judgeFour(row, x);
        const FourPixels right = judgeFour(row, x + 4);
        const unsigned strong = left.strong | right.strong << 4;
        for (unsigned edges = left.edges | right.edges << 4; edges != 0; edges &= edges - 1) {
            const int lane = std::countr_zero(edges);
            row.mark(x + lane, (strong >> lane & 1U) != 0);
        }
    }
}
#endif

}  // namespace

// NOLINTNEXTLINE(readability-function-size): a list that others compile against
void find_edge_mask_nms(const cv::Mat& img_grad, const cv::Mat& img_dx, const cv::Mat& img_dy, cv::Mat& edge_mask,
                        std::vector<int>& strong, std::vector<int>& weak, float low, float high, float nmsFactor) {
    if (img_grad.type() != CV_32FC1 || img_dx.type() != CV_32FC1 || img_dy.type() != CV_32FC1 ||
        img_grad.size() != img_dx.size() || img_dx.size() != img_dy.size()) {
        raiseAssertion(assertion_sites::kMaskSources);
    }
    edge_mask.create(img_grad.size(), CV_8UC1);
    prepareList(strong, img_grad);
    prepareList(weak, img_grad);
    if (img_grad.rows < kLeastRows) return;
#if KESTRUNE_EXACT_LANES
    const int grouped = plain::groupedEnd(img_grad.cols, 2);
    const auto stride = static_cast<std::ptrdiff_t>(img_grad.step1());
    for (int y = 2; y < img_grad.rows - 2; ++y) {
        const plain::EdgeRow row = {img_grad.ptr<float>(y),
                                    img_dx.ptr<float>(y),
                                    img_dy.ptr<float>(y),
                                    edge_mask.ptr<uchar>(y),
                                    stride,
                                    y * img_grad.cols,
                                    low,
                                    high,
                                    nmsFactor,
                                    strong,
                                    weak};
        judgeGroups(row, grouped);
        row.judgeColumns(grouped, img_grad.cols - 2, grouped);
    }
#else
    plain::find_edge_mask_nms(img_grad, img_dx, img_dy, edge_mask, strong, weak, low, high, nmsFactor);
#endif
}

}  // namespace kestrune
