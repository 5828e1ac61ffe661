// SPDX-License-Identifier: Apache-2.0
//
// At a fixed image size the radial and the edge-based path allocate no image of their own after the first call. Both ways to memory are
// watched: operator new, and the allocator behind `cv::Mat`. What OpenCV allocates inside the whole-image calls that the
// path must make is measured by making these calls alone, into buffers that are there already.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <new>

#include "kestrune_scene/scene.h"
#include "support/configs.h"

namespace {

constexpr std::size_t kLarge = 64 * 1024;
std::atomic<int> largeAllocations{0};

void* counted(std::size_t size) {
    if (size > kLarge) ++largeAllocations;
    if (void* memory = std::malloc(size > 0 ? size : 1)) return memory;
    throw std::bad_alloc();
}

/// Counts and hands on.
class CountingAllocator : public cv::MatAllocator {
  public:
    cv::UMatData* allocate(int dims, const int* sizes, int type, void* data, std::size_t* step, cv::AccessFlag flags,
                           cv::UMatUsageFlags usage) const override {
        cv::UMatData* result = cv::Mat::getStdAllocator()->allocate(dims, sizes, type, data, step, flags, usage);
        if (data == nullptr && result->size > kLarge) ++largeAllocations;
        return result;
    }
    bool allocate(cv::UMatData* data, cv::AccessFlag flags, cv::UMatUsageFlags usage) const override {
        return cv::Mat::getStdAllocator()->allocate(data, flags, usage);
    }
    void deallocate(cv::UMatData* data) const override { cv::Mat::getStdAllocator()->deallocate(data); }
};

}  // namespace

void* operator new(std::size_t size) {
    return counted(size);
}
void* operator new[](std::size_t size) {
    return counted(size);
}
void operator delete(void* memory) noexcept {
    std::free(memory);
}
void operator delete[](void* memory) noexcept {
    std::free(memory);
}
void operator delete(void* memory, std::size_t) noexcept {
    std::free(memory);
}
void operator delete[](void* memory, std::size_t) noexcept {
    std::free(memory);
}

namespace kestrune {
namespace {

template <typename Work>
int largeAllocationsOf(const Work& work) {
    static CountingAllocator allocator;
    cv::MatAllocator* const before = cv::Mat::getDefaultAllocator();
    cv::Mat::setDefaultAllocator(&allocator);
    const int start = largeAllocations;
    work();
    const int count = largeAllocations - start;
    cv::Mat::setDefaultAllocator(before);
    return count;
}

TEST(Allocation, LaterRadialCallsAllocateNoImage) {
    const scene::Rig rig = scene::makeVergedRig({1280, 1024});
    const auto discs = scene::makeScatteredDiscs(rig, 40, 12, 16, 20, 180, 5);
    scene::RenderOptions options;
    options.noiseSigma = 1;  // without specks: their list of components is OpenCV's and is no image
    const cv::Mat grey = scene::render(rig, discs, {}, options).image[0];
    cv::Mat colour;
    cv::cvtColor(grey, colour, cv::COLOR_GRAY2BGR);
    for (const cv::Mat& image : {grey, colour}) {
        for (const int scale : {1, 2}) {
            CicrleConfigs configs = test::discConfigs(true);
            configs.scale = scale;
            configs.refineAtFullSize = scale == 2;
            CircleMarkerExtractor extractor;
            std::vector<Corner> corners, again;
            const int first = largeAllocationsOf([&] { extractor.CircleExtractSimple(image, corners, 0, configs); });
            const int second = largeAllocationsOf([&] { extractor.CircleExtractSimple(image, again, 0, configs); });
            ASSERT_GE(corners.size(), 30u);
            EXPECT_EQ(corners.size(), again.size());

            cv::Mat grey8(grey.size(), CV_8UC1), blurred(grey.size(), CV_8UC1), labels, stats, centroids;
            cv::Mat working(grey.rows / scale, grey.cols / scale, CV_8UC1), binary(working.size(), CV_8UC1);
            labels.create(working.size(), CV_32SC1);
            const int unavoidable = largeAllocationsOf([&] {
                cv::GaussianBlur(grey, blurred, {21, 21}, 1, 1, cv::BORDER_REFLECT_101);
                if (image.channels() == 3) cv::cvtColor(image, grey8, cv::COLOR_BGR2GRAY);
                cv::resize(grey, working, working.size(), 0, 0, cv::INTER_LINEAR);
                cv::adaptiveThreshold(working, binary, 255, cv::ADAPTIVE_THRESH_GAUSSIAN_C, cv::THRESH_BINARY, 21, -8);
                cv::connectedComponentsWithStats(binary, labels, stats, centroids, 8, CV_32S);
            });
            EXPECT_GE(first - unavoidable, 4) << "the counters see the first call's buffers";
            EXPECT_EQ(second, unavoidable) << image.channels() << " channels, scale " << scale;
        }
    }
}

TEST(Allocation, LaterCallsOfTheEdgeBasedPathAllocateNoImage) {
    const scene::Rig rig = scene::makeVergedRig({1280, 1024});
    const auto discs = scene::makeScatteredDiscs(rig, 40, 12, 16, 20, 180, 5);
    scene::RenderOptions options;
    options.noiseSigma = 1;
    const cv::Mat image = scene::render(rig, discs, {}, options).image[0];
    for (const int scale : {1, 2}) {
        CicrleConfigs configs = test::rimConfigs();
        configs.scale = scale;
        CircleMarkerExtractor extractor;
        std::vector<Corner> corners, again;
        const int first = largeAllocationsOf([&] { extractor.CircleExtractComplex(image, corners, 0, configs); });
        const int second = largeAllocationsOf([&] { extractor.CircleExtractComplex(image, again, 0, configs); });
        ASSERT_GE(corners.size(), 30u);
        cv::Mat working(image.rows / scale, image.cols / scale, CV_8UC1), binary(working.size(), CV_8UC1), labels(working.size(), CV_32SC1), stats,
            centroids;
        const int unavoidable = largeAllocationsOf([&] {
            cv::resize(image, working, working.size(), 0, 0, cv::INTER_LINEAR);
            cv::adaptiveThreshold(working, binary, 255, cv::ADAPTIVE_THRESH_GAUSSIAN_C, cv::THRESH_BINARY, configs.aperture, configs.thresholdC);
            cv::connectedComponentsWithStats(binary, labels, stats, centroids, 8, CV_32S);
        });
        EXPECT_GE(first - second, 7) << "the counters see the first call's buffers";
        EXPECT_EQ(second, unavoidable) << "scale " << scale;
    }
}

}  // namespace
}  // namespace kestrune
