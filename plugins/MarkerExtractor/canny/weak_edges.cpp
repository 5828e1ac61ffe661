// SPDX-License-Identifier: Apache-2.0
#include "canny/weak_edges.h"

#include <algorithm>
#include <opencv2/imgproc.hpp>

namespace kestrune {

namespace {

constexpr int kEdgeConnectivity = 8;

struct Line {
    float strongest = 0;
    bool isEdge = false;
};

}  // namespace

void noteWeakEdges(const cv::Mat& all, const cv::Mat& edges, const cv::Mat& heights, const Drop& wanted, int minPixels,
                   Drops& drops) {
    cv::Mat labels, stats, centroids;
    const int count = cv::connectedComponentsWithStats(all, labels, stats, centroids, kEdgeConnectivity, CV_32S);
    std::vector<Line> lines(static_cast<std::size_t>(count));
    for (int y = 0; y < all.rows; ++y) {
        for (int x = 0; x < all.cols; ++x) {
            const int label = labels.at<int>(y, x);
            if (label == 0) continue;
            Line& line = lines[static_cast<std::size_t>(label)];
            line.strongest = std::max(line.strongest, heights.at<float>(y, x));
            line.isEdge = line.isEdge || edges.at<uchar>(y, x) != 0;
        }
    }
    for (int label = 1; label < count; ++label) {
        const int* const box = stats.ptr<int>(label);
        const Line& line = lines[static_cast<std::size_t>(label)];
        if (line.isEdge || box[cv::CC_STAT_AREA] < minPixels) continue;
        Drop drop = wanted;
        drop.measured = line.strongest;
        note(&drops, Met::kEdge, drop,
             cv::Rect(box[cv::CC_STAT_LEFT], box[cv::CC_STAT_TOP], box[cv::CC_STAT_WIDTH], box[cv::CC_STAT_HEIGHT]));
    }
}

}  // namespace kestrune
