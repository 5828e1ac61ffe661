// SPDX-License-Identifier: Apache-2.0
#include <bit>

#include "ellipsedetection/gradient.h"
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
/// Of four pixels: one bit for each that has the strength and a direction.
int candidatesOf(const plain::EdgeRow& row, int x) {
    const cv::v_float32x4 component = cv::v_setall_f32(plain::kLeastComponent);
    const cv::v_float32x4 hasDirection =
        (cv::v_abs(cv::v_load(row.dx + x)) > component) | (cv::v_abs(cv::v_load(row.dy + x)) > component);
    return cv::v_signmask((cv::v_load(row.grad + x) > cv::v_setall_f32(row.low)) & hasDirection);
}

/// Groups without a pixel above `low` are passed over together.
void judgeGroups(const plain::EdgeRow& row, int grouped) {
    const cv::v_float32x4 low = cv::v_setall_f32(row.low);
    for (int x = 2; x < grouped; x += plain::kGroup) {
        if (!cv::v_check_any((cv::v_load(row.grad + x) > low) | (cv::v_load(row.grad + x + 4) > low))) continue;
        auto bits = static_cast<unsigned>(candidatesOf(row, x) | candidatesOf(row, x + 4) << 4);
        for (; bits != 0; bits &= bits - 1) row.markIfMaximum(x + std::countr_zero(bits));
    }
}
#endif

}  // namespace

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
