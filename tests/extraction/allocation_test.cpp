// SPDX-License-Identifier: Apache-2.0
//
// At a fixed image size the radial and the edge-based path allocate no image of their own after the first call. Both ways to memory are
// watched: operator new, and the allocator behind `cv::Mat`. What OpenCV allocates inside the whole-image calls that the
// path must make is measured by making these calls alone, into buffers that are there already.

#include <atomic>
#include <cstdlib>
#include <new>

#include "kestrune_scene/scene.h"
#include "support/configs.h"

namespace {

constexpr std::size_t kLarge = 64 * 1024;
std::atomic<int> largeAllocations{0};

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

// The forms for arrays come to these. Not inline, or gcc takes the `free` in them for one of what `new` gave.
[[gnu::noinline]] void* operator new(std::size_t size) {
    if (size > kLarge) ++largeAllocations;
    if (void* memory = std::malloc(size > 0 ? size : 1)) return memory;
    throw std::bad_alloc();
}
[[gnu::noinline]] void operator delete(void* memory) noexcept {
    std::free(memory);
}
[[gnu::noinline]] void operator delete(void* memory, std::size_t) noexcept {
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

TEST(Allocation, LaterCallsOfTheRadialAndTheEdgeBasedPathAllocateNoImage) {
    const scene::Rig rig = scene::makeVergedRig({1280, 1024});
    scene::RenderOptions options;
    options.noiseSigma = 1;  // without specks: their list of components is OpenCV's and is no image
    const cv::Mat grey = scene::render(rig, scene::makeScatteredDiscs(rig, 40, 12, 16, 20, 180, 5), {}, options).image[0];
    cv::Mat colour;
    cv::cvtColor(grey, colour, cv::COLOR_GRAY2BGR);
    for (CicrleConfigs configs : {test::discConfigs(true), test::rimConfigs()}) {
        for (const cv::Mat& image : {grey, colour}) {
            for (configs.scale = 1; configs.scale <= 2; ++configs.scale) {
                configs.refineAtFullSize = configs.scale == 2;
                CircleMarkerExtractor extractor;
                std::vector<Corner> corners, again;
                const int first = largeAllocationsOf([&] { ExtractCircleMarker(image, extractor, corners, 0, configs); });
                const int second = largeAllocationsOf([&] { ExtractCircleMarker(image, extractor, again, 0, configs); });
                ASSERT_GE(corners.size(), 30u);

                cv::Mat grey8(grey.size(), CV_8UC1), blurred(grey.size(), CV_8UC1), stats, centroids;
                cv::Mat working(grey.size() / configs.scale, CV_8UC1), binary(working.size(), CV_8UC1), labels(working.size(), CV_32SC1);
                const int unavoidable = largeAllocationsOf([&] {
                    if (configs.useRadialContours) cv::GaussianBlur(grey, blurred, {21, 21}, 1, 1, cv::BORDER_REFLECT_101);
                    if (image.channels() == 3) cv::cvtColor(image, grey8, cv::COLOR_BGR2GRAY);
                    cv::resize(grey, working, working.size(), 0, 0, cv::INTER_LINEAR);
                    cv::adaptiveThreshold(working, binary, 255, cv::ADAPTIVE_THRESH_GAUSSIAN_C, cv::THRESH_BINARY, configs.aperture, -8);
                    cv::connectedComponentsWithStats(binary, labels, stats, centroids, 8, CV_32S);
                });
                EXPECT_GE(first - unavoidable, configs.useRadialContours ? 4 : 7) << "the counters see the first call's buffers";
                EXPECT_EQ(second, unavoidable) << image.channels() << " channels, scale " << configs.scale;
            }
        }
    }
}

}  // namespace
}  // namespace kestrune
