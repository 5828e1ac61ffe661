// SPDX-License-Identifier: Apache-2.0
#include "parallel/parallel_loop.h"
#include "MarkerExtractor/stereo/index.h"

#include <sys/wait.h>
#include <unistd.h>

#include <cfenv>
#include <filesystem>
#include <set>
#include <thread>

#include "support/calls.h"
#include "support/teams.h"

namespace kestrune::test::parallel_loop {

/// Runs a loop whose items listed in `failing` throw. @return what came out: the item that failed first, or -1.
int failureOf(int count, const std::set<int>& failing, std::vector<int>& runs) {
    runs.assign(asIndex(count), 0);
    try {
        forEachInParallel(count, 1, [&](int item) {
            ++runs[asIndex(item)];
            if (failing.count(item)) throw item;
        });
    } catch (int item) {
        return item;
    }
    return -1;
}

TEST(ParallelLoop, RunsEachItemOnceAndRaisesTheFirstFailure) {
    const SharedLoops shared;
    std::vector<int> runs;
    for (const int threads : {1, 2, 5}) {
        omp_set_num_threads(threads);
        for (const int count : {0, 1, 2, 7, 1000}) {
            EXPECT_EQ(failureOf(count, {}, runs), -1) << threads;
            EXPECT_EQ(runs, std::vector<int>(asIndex(count), 1)) << threads;
        }
        for (int repeat = 0; repeat < 100; ++repeat) {
            EXPECT_EQ(failureOf(1000, {400, 401, 700, 999}, runs), 400) << threads;
            EXPECT_TRUE(std::all_of(runs.begin(), runs.begin() + 401, [](int times) { return times == 1; })) << threads;
        }
    }
}

/// Threads that a loop of `count` items of `microseconds` each runs on.
std::size_t threadsOf(int count, int microseconds, std::int64_t mostPerItem) {
    std::vector<std::thread::id> ids(asIndex(count));
    forEachInParallel(count, mostPerItem, [&](int item) {
        ids[asIndex(item)] = std::this_thread::get_id();
        const std::clock_t begin = std::clock();
        while (std::clock() - begin < microseconds * (CLOCKS_PER_SEC / 1'000'000)) {
        }
    });
    return std::set(ids.begin(), ids.end()).size();
}

TEST(ParallelLoop, WakesThreadsOnlyForWorkThatIsWorthIt) {
    const SharedLoops shared;
    leastSharedWork = 3'600'000'000'000;
    EXPECT_EQ(threadsOf(1000, 0, leastSharedWork), 1u);  // may be long, is not
    leastSharedWork = 50'000'000;
    omp_set_num_threads(3);
    EXPECT_EQ(threadsOf(400, 500, 1), 1u);  // said to be short
    EXPECT_GT(threadsOf(400, 500, 500'000), 1u);
    std::atomic<std::size_t> most = 0;
#pragma omp parallel num_threads(2)
    most = std::max<std::size_t>(most, threadsOf(100, 500, 500'000));
    EXPECT_EQ(most, 1u);
}

std::ptrdiff_t threadsOfProcess() {
    return std::distance(std::filesystem::directory_iterator("/proc/self/task"), {});
}

TEST(ParallelLoop, UsesItsThreadsAgain) {
    const SharedLoops shared;
    omp_set_num_threads(4);
    std::ptrdiff_t before = 0;
    for (int call = 0; call < 100; ++call) {
        forEachLongItem(100, [](int) { forEachLongItem(3, [](int) { EXPECT_EQ(largestTeam(), 1); }); });
        if (call == 0) before = threadsOfProcess();
    }
    EXPECT_EQ(threadsOfProcess(), before);
}

TEST(ParallelLoop, RoundsAsTheCallerDoes) {
    const SharedLoops shared;
    omp_set_num_threads(4);
    for (const int mode : {FE_TONEAREST, FE_UPWARD, FE_TOWARDZERO}) {
        std::fesetround(mode);
        std::vector<int> modes(200);
        forEachLongItem(200, [&](int item) { std::this_thread::yield(), modes[asIndex(item)] = std::fegetround(); });
        std::fesetround(FE_TONEAREST);
        EXPECT_EQ(modes, std::vector<int>(200, mode));
    }
}

TEST(ParallelLoop, RunsInAForkedChild) {
    const SharedLoops shared;
    omp_set_num_threads(2);
    std::vector<int> runs;
    EXPECT_EQ(failureOf(100, {}, runs), -1);
    const pid_t child = ::fork();
    if (child == 0) {
        ::alarm(20);
        ::_exit(failureOf(100, {7}, runs) == 7 ? 0 : 1);
    }
    int status = -1;
    ::waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
}

}  // namespace kestrune::test::parallel_loop
