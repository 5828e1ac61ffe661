// SPDX-License-Identifier: Apache-2.0
#include "parallel/parallel_loop.h"

#include <omp.h>

#include <algorithm>
#include <ctime>
#include <exception>
#include <memory>
#include <mutex>

#include "parallel/team.h"

namespace kestrune {

std::atomic<std::int64_t> leastSharedWork{150'000};

namespace {

/// What is done before the rest is judged by it, ns: enough for cold caches not to count.
constexpr std::int64_t kTrial = 20'000;
/// Portions that a thread takes, on average. The threads ask for them as they go: one that comes late finds little
/// left, and one that the system stops in the middle holds up the others by no more.
constexpr int kPortions = 16;

/// Storage of this kind is there from the start; any other may have to be allocated at the first use, and the loader
/// ends the process where it cannot be.
[[gnu::tls_model("initial-exec")]] thread_local Team* callersTeam = nullptr;
[[gnu::tls_model("initial-exec")]] thread_local bool isInCall = false;
[[gnu::tls_model("initial-exec")]] thread_local bool isInLoop = false;

/// While items of a loop run on this thread.
class InLoop {
  public:
    InLoop() noexcept { isInLoop = true; }
    ~InLoop() { isInLoop = before_; }
    InLoop(const InLoop&) = delete;
    InLoop& operator=(const InLoop&) = delete;

  private:
    const bool before_ = isInLoop;
};

std::int64_t now() {
    timespec time{};
    ::clock_gettime(CLOCK_MONOTONIC, &time);
    return std::int64_t{time.tv_sec} * 1'000'000'000 + time.tv_nsec;
}

/// Runs items from 0 on until the rest of them is worth waking threads for, by the time that the first ones took.
/// @return the first item that has not run.
int runAlone(int count, std::int64_t worth, LoopBody body) {
    const InLoop inLoop;
    const std::int64_t begin = now();
    int nextLook = 1, item = 0;
    while (item < count) {
        body(item++, 0);
        if (item < nextLook) continue;
        const std::int64_t passed = now() - begin;
        if (passed >= std::min(kTrial, worth) && passed / item * (count - item) >= worth) break;
        nextLook = item * 2;
    }
    return item;
}

/// Keeps the exception of the lowest item that raised one.
class FirstFailure {
  public:
    explicit FirstFailure(int count) : item_(count) {}
    bool isBefore(int item) const { return item_.load(std::memory_order_relaxed) < item; }
    void keep(int item) {
        const std::lock_guard lock(mutex_);
        if (isBefore(item)) return;
        exception_ = std::current_exception();
        item_.store(item, std::memory_order_relaxed);
    }
    void rethrow() const {
        if (exception_) std::rethrow_exception(exception_);
    }

  private:
    std::atomic<int> item_;
    std::exception_ptr exception_;
    std::mutex mutex_;
};

/// Items that the threads of a team take in portions.
class SharedItems final : public SharedWork {
  public:
    SharedItems(int first, int count, int threads, LoopBody body)
        : next_(first),
          count_(count),
          portion_(std::max(1, (count - first) / (kPortions * threads))),
          body_(body),
          failure_(count) {}

    void help(int thread) noexcept override {
        const InLoop inLoop;
        for (;;) {
            const int first = next_.fetch_add(portion_, std::memory_order_relaxed);
            if (first >= count_) break;
            for (int item = first; item < std::min(first + portion_, count_); ++item) run(item, thread);
        }
    }
    void rethrow() const { failure_.rethrow(); }

  private:
    void run(int item, int thread) noexcept {
        if (failure_.isBefore(item)) return;
        try {
            body_(item, thread);
        } catch (...) {
            failure_.keep(item);
        }
    }

    std::atomic<int> next_;
    const int count_, portion_;
    const LoopBody body_;
    FirstFailure failure_;
};

/// The team of this call, with at least as many threads as can be had of those wanted beside the caller's.
Team* teamOf(int helpers) {
    try {
        if (callersTeam == nullptr) callersTeam = Team::take().release();
        callersTeam->growTo(helpers);
    } catch (const std::exception&) {  // std::bad_alloc or std::system_error: those that are there have to do
    }
    return callersTeam != nullptr && callersTeam->size() > 0 ? callersTeam : nullptr;
}

/// Runs the items from `first` on, by a team if there is one.
void runShared(int first, int count, int threads, LoopBody body) {
    const ParallelCall call;  // a loop outside of any call lets its threads go
    Team* const helpers = threads > 1 ? teamOf(threads - 1) : nullptr;
    if (helpers == nullptr) {
        const InLoop inLoop;
        for (int item = first; item < count; ++item) body(item, 0);
        return;
    }
    SharedItems items(first, count, threads, body);
    helpers->share(items, threads - 1);
    items.rethrow();
}

}  // namespace

ParallelCall::ParallelCall() noexcept : isOutermost_(!isInCall) {
    isInCall = true;
}

ParallelCall::~ParallelCall() {
    if (!isOutermost_) return;
    isInCall = false;
    if (callersTeam != nullptr) Team::giveBack(std::unique_ptr<Team>(callersTeam));
    callersTeam = nullptr;
}

int largestTeam() {
    if (isInLoop || omp_in_parallel()) return 1;
    return std::max(1, std::min(omp_get_max_threads(), omp_get_thread_limit()));
}

void forEachInParallel(int count, std::int64_t mostPerItem, LoopBody body) {
    const std::int64_t worth = leastSharedWork.load(std::memory_order_relaxed);
    const bool isTooLittle = worth > 0 && count < worth / std::max<std::int64_t>(1, mostPerItem);
    const int most = isTooLittle ? 1 : largestTeam();
    int item = 0;
    if (most > 1 && worth > 0) item = runAlone(count, worth, body);
    runShared(item, count, std::min(most, count - item), body);
}

void forEachLongItem(int count, LoopBody body) {
    runShared(0, count, std::min(largestTeam(), count), body);
}

}  // namespace kestrune
