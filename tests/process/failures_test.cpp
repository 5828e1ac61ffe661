// SPDX-License-Identifier: Apache-2.0
//
// Memory and threads run out at every point of every operation: a host gets an exception that the header names, and the same object gives the
// right result at the next call. At a fixed image size it allocates no image after the first. Whatever allocates in this process comes through
// here: the library, OpenCV, Eigen and OpenMP's runtime.
#include <dlfcn.h>
#include <pthread.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <functional>
#include <map>
#include <set>
#include <thread>

#include "MarkerExtractor/stereo/index.h"
#include "support/calls.h"
#include "support/configs.h"
#include "support/every_operation.h"
#include "support/teams.h"

extern "C" {
void* __libc_malloc(std::size_t);
void* __libc_calloc(std::size_t, std::size_t);
void* __libc_realloc(void*, std::size_t);
void* __libc_memalign(std::size_t, std::size_t);
}

namespace {

constexpr std::size_t kLarge = 64 * 1024;
std::atomic<long> allocations{0}, largeOnes{0}, firstFailure{0};  ///< 0: none fails
std::atomic<bool> failsOnce{false}, noThreads{false};

bool isThere(std::size_t size) {
    largeOnes += size > kLarge;
    const long first = firstFailure;
    if (first == 0) return true;
    const long number = ++allocations;
    if (failsOnce ? number != first : number < first) return true;
    errno = ENOMEM;
    return false;
}

}  // namespace

extern "C" {
void* malloc(std::size_t size) {
    return isThere(size) ? __libc_malloc(size) : nullptr;
}
void* calloc(std::size_t count, std::size_t size) {
    return isThere(count * size) ? __libc_calloc(count, size) : nullptr;
}
void* realloc(void* memory, std::size_t size) {
    return isThere(size) ? __libc_realloc(memory, size) : nullptr;
}
void* memalign(std::size_t alignment, std::size_t size) {
    return isThere(size) ? __libc_memalign(alignment, size) : nullptr;
}
void* aligned_alloc(std::size_t alignment, std::size_t size) {
    return memalign(alignment, size);
}
int posix_memalign(void** memory, std::size_t alignment, std::size_t size) {
    *memory = memalign(alignment, size);
    return *memory == nullptr ? ENOMEM : 0;
}
int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*start)(void*), void* argument) {
    static const auto next = reinterpret_cast<decltype(&pthread_create)>(::dlsym(RTLD_NEXT, "pthread_create"));
    return noThreads ? EAGAIN : next(thread, attributes, start, argument);
}
}

namespace kestrune::test::failures {

using namespace every_operation;

/// Runs the operation with this failure. @return what it raised, nothing if it came to its end.
std::string outcomeOf(const Operation& operation, Host& host, std::vector<double>& numbers, long first, bool once) {
    Result result;
    std::string raised;
    allocations = 0, failsOnce = once, firstFailure = first;
    try {
        operation.run(host, result);
    } catch (const std::bad_alloc&) {
        raised = "bad_alloc";  // short texts take no memory
    } catch (const std::system_error&) {
        raised = "system_error";
    } catch (const std::exception& e) {
        firstFailure = 0;
        const auto* const ofOpenCv = dynamic_cast<const cv::Exception*>(&e);
        raised = ofOpenCv != nullptr && ofOpenCv->code == cv::Error::StsNoMem ? "bad_alloc" : e.what();
    }
    firstFailure = 0, numbers = result.all();
    return raised;
}

TEST(Failures, ReachTheHostWhereverMemoryRunsOut) {
    const SharedLoops shared;
    Host host;
    std::map<std::string, std::vector<double>> reference;
    testing::internal::CaptureStdout();  // one operation warns
    for (const int threads : {1, 2}) {
        omp_set_num_threads(threads), cv::setNumThreads(threads);
        for (const Operation& operation : kOperations) {
            SCOPED_TRACE(operation.name);
            std::vector<double> result;
            ASSERT_EQ(outcomeOf(operation, host, result, 0, false), "");
            std::vector<double>& expected = reference[operation.name];
            if (threads == 1) expected = result;
            ASSERT_EQ(result, expected) << "for any number of threads";
            ASSERT_EQ(result.size(), operation.count);
            for (const bool once : {true, false}) {
                long raised = 0, first = 1;
                for (;; first += 1 + first / (threads == 1 ? 32 : 4)) {
                    const std::string what = outcomeOf(operation, host, result, first, once);
                    const bool isOver = allocations < first;
                    ASSERT_EQ(what, what.empty() ? "" : "bad_alloc") << first;
                    ASSERT_EQ(what.empty() ? result : expected, expected) << first;
                    raised += !what.empty();
                    ASSERT_EQ(outcomeOf(operation, host, result, 0, once), "") << first;
                    ASSERT_EQ(result, expected) << first;
                    if (isOver) break;
                }
                EXPECT_GT(raised, 3);
            }
        }
    }
    cv::setNumThreads(-1);
    testing::internal::GetCapturedStdout();
}

TEST(Failures, LeaveALoopToItsCallerWithoutMemoryOrThreadsForATeam) {
    const SharedLoops shared;
    omp_set_num_threads(4);
    for (const auto& [isShort, lacksThreads] : {std::pair(false, false), {true, false}, {false, true}}) {
        const pid_t child = ::fork();  // where no earlier loop has left its threads
        if (child == 0) {
            std::vector<std::thread::id> ids(100);
            allocations = 0, failsOnce = false, firstFailure = isShort, noThreads = lacksThreads;
            forEachInParallel(100, 1, [&](int item) {
                ids[asIndex(item)] = std::this_thread::get_id();
                std::this_thread::sleep_for(std::chrono::microseconds(200));
            });
            firstFailure = 0, noThreads = false;
            ::_exit(std::set(ids.begin(), ids.end()).size() > 1 ? 1 : 0);
        }
        int status = -1;
        ::waitpid(child, &status, 0);
        EXPECT_EQ(WIFEXITED(status) ? WEXITSTATUS(status) : -1, !isShort && !lacksThreads) << isShort << lacksThreads;
    }
}

TEST(Failures, AreNoneWithoutThreadsButThoseAskedFor) {
    const SharedLoops shared;
    omp_set_num_threads(4);
    Host host;
    CicrleConfigs configs = Host::settings(0);
    configs.useThreads = true;
    const Operation withThreads = {"", 0, [&configs](Host& h, Result& r) { ExtractCircleMarker(h.left, h.e, r.corners, 0, configs); }};
    for (const Operation& operation : kOperations) {
        std::vector<double> without, with;
        noThreads = true;
        EXPECT_EQ(outcomeOf(operation, host, without, 0, false), "") << operation.name;
        EXPECT_EQ(outcomeOf(withThreads, host, with, 0, false), "system_error") << operation.name;
        noThreads = false;
        EXPECT_EQ(outcomeOf(operation, host, with, 0, false), "") << operation.name;
        EXPECT_EQ(without, with) << operation.name;
    }
}

template <typename Call>
long largeAllocationsOf(const Call& call) {
    const long before = largeOnes;
    call();
    return largeOnes - before;
}

TEST(Allocation, LaterCallsOfAPathAllocateNoImage) {
    const SharedLoops shared;
    omp_set_num_threads(1);  // another thread would allocate its own at its first turn, whenever that is
    cv::Mat grey(512, 640, CV_8UC1, cv::Scalar(40)), colour;
    for (int k = 0; k < 30; ++k) addDisc(grey, {60.3 + 100 * (k % 6), 60.7 + 90 * (k / 6)}, 14);
    cv::cvtColor(grey, colour, cv::COLOR_GRAY2BGR);
    for (CicrleConfigs configs : configsOfPaths()) {
        for (const cv::Mat& image : {grey, colour}) {
            for (configs.scale = 1; configs.scale <= 2; ++configs.scale) {
                configs.refineAtFullSize = configs.scale == 2;
                CircleMarkerExtractor extractor;
                std::vector<Corner> corners, again;
                const long first = largeAllocationsOf([&] { ExtractCircleMarker(image, extractor, corners, 0, configs); });
                const long second = largeAllocationsOf([&] { ExtractCircleMarker(image, extractor, again, 0, configs); });
                ASSERT_EQ(corners.size(), 30u);
                // What OpenCV allocates in the calls that the path must make, into buffers that are there already.
                cv::Mat grey8(grey.size(), CV_8UC1), working(grey.size() / configs.scale, CV_8UC1);
                const long unavoidable = largeAllocationsOf([&] {
                    if (image.channels() == 3) cv::cvtColor(image, grey8, cv::COLOR_BGR2GRAY);
                    cv::resize(grey, working, working.size(), 0, 0, cv::INTER_LINEAR);
                });
                EXPECT_GE(first - unavoidable, image.channels() / 3) << "the first call's buffers are seen";
                EXPECT_EQ(second, unavoidable) << image.channels() << " channels, scale " << configs.scale;
            }
        }
    }
}

}  // namespace kestrune::test::failures
