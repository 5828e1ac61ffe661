// SPDX-License-Identifier: Apache-2.0
#include "blobs/bright_blobs.h"

#include <gtest/gtest.h>

#include <opencv2/imgproc.hpp>

#include "support/configs.h"
#include "support/teams.h"

namespace kestrune::test::bright_blobs {

std::vector<BrightBlob> plainBlobs(const cv::Mat& image, int aperture, int thresholdC) {
    cv::Mat binary, labels, stats, centroids;
    cv::adaptiveThreshold(image, binary, 255, cv::ADAPTIVE_THRESH_GAUSSIAN_C, cv::THRESH_BINARY, aperture, std::clamp(thresholdC, -256, 256));
    std::vector<BrightBlob> blobs;
    for (int k = 1; k < cv::connectedComponentsWithStats(binary, labels, stats, centroids); ++k) {
        const int* const s = stats.ptr<int>(k);
        blobs.push_back({{s[0], s[1], s[2], s[3]}, s[4], {centroids.at<double>(k, 0), centroids.at<double>(k, 1)}});
    }
    return blobs;
}

bool areSame(const std::vector<BrightBlob>& a, const std::vector<BrightBlob>& b) {
    return std::ranges::equal(
        a, b, [](const BrightBlob& x, const BrightBlob& y) { return x.box == y.box && x.area == y.area && x.centroid == y.centroid; });
}

TEST(BrightBlobs, AreThoseOfOpenCv) {
    cv::RNG random(4);
    const int apertures[] = {3, 5, 7, 11, 15, 31, 63, 151}, constants[] = {-8, -3, 0, 2, -25, 255, -256, 1000, -1000};
    const SharedLoops shared;
    const int openCvThreads = cv::getNumThreads();
    BlobScratch scratch;
    std::vector<BrightBlob> blobs;
    for (int k = 0; k < 500; ++k) {
        // Every other one is a window of a larger image.
        const int width = random.uniform(1, k % 5 == 0 ? 300 : 40), height = random.uniform(1, k % 7 == 0 ? 400 : 40), edge = k % 2 * 5;
        cv::Mat whole(height + 2 * edge, width + 2 * edge, CV_8UC1);
        const int step = random.uniform(1, 9), level = random.uniform(0, 256);
        if (k % 4 == 0) whole = imageOf<uchar>(whole.size(), [=](int x, int y) { return (x / step + y / step) % 2 * level; });
        if (k % 4 == 1) random.fill(whole, cv::RNG::NORMAL, level, step);
        if (k % 4 == 2) random.fill(whole, cv::RNG::UNIFORM, 0, 256);
        if (k % 4 == 3) whole = imageOf<uchar>(whole.size(), [=](int x, int y) { return step * x - step * y + level; });
        if (k % 8 > 5) cv::GaussianBlur(whole, whole, {}, step);
        const cv::Mat image = whole(cv::Rect(edge, edge, width, height));
        const int aperture = apertures[random.uniform(0, 8)], constant = constants[random.uniform(0, 9) % (k % 3 * 3 + 3)];
        omp_set_num_threads(1 + k % 3);
        cv::setNumThreads(1 + k % 4);
        findBrightBlobs(image, aperture, constant, scratch, blobs);
        ASSERT_TRUE(areSame(blobs, plainBlobs(image, aperture, constant))) << k << ' ' << image.size() << ' ' << aperture << ' ' << constant;
    }
    cv::setNumThreads(openCvThreads);
}

}  // namespace kestrune::test::bright_blobs
