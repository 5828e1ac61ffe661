// SPDX-License-Identifier: Apache-2.0
#include "parallel/parallel_loop.h"

#include <omp.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <exception>
#include <latch>
#include <mutex>
#include <system_error>
#include <thread>
#include <vector>

namespace kestrune {

std::atomic<std::int64_t> leastSharedWork{6'000'000};

namespace {

/// What is done before the rest is judged by it, ns: enough for cold caches not to count.
constexpr std::int64_t kTrial = 300'000;
/// Portions that a thread takes, on average. The threads ask for them as they go: one that comes late finds little
/// left, and does not hold up the others with a half of its own.
constexpr int kPortions = 8;
/// Threads that must be there besides those of a team. The system counts a thread for a moment after it was joined, and
/// other parts of the process start threads, too.
constexpr int kSpareThreads = 4;
/// More than the runtime allocates when it makes a team, bytes.
constexpr std::size_t kMemoryOfTeam = 64 << 10, kMemoryPerThread = 1 << 10;

const pid_t loadedBy = ::getpid();

/// Size of the team that the calling thread was found able to start; the runtime keeps it for the thread's next region.
/// Storage of this kind is there from the start; any other may have to be allocated at the first use, and the loader
/// ends the process where it cannot be.
[[gnu::tls_model("initial-exec")]] thread_local int triedTeam = 0;

std::int64_t timeOf(clockid_t clock) {
    timespec now{};
    ::clock_gettime(clock, &now);
    return std::int64_t{now.tv_sec} * 1'000'000'000 + now.tv_nsec;
}

bool canAllocate(std::size_t bytes) {
    void* volatile memory = std::malloc(bytes);  // volatile: the pair would be left out otherwise
    const bool isThere = memory != nullptr;
    std::free(memory);
    return isThere;
}

/// Whether `count` threads can run at the same time.
bool canStartThreads(int count) {
    std::latch gate{1};                 // outlives the threads: one that leaves it still looks at it
    std::vector<std::jthread> threads;  // joined at the end
    bool canStart = true;
    try {
        threads.reserve(static_cast<std::size_t>(count));
        for (int i = 0; i < count; ++i) threads.emplace_back([&gate] { gate.wait(); });
    } catch (const std::exception&) {  // std::system_error or std::bad_alloc
        canStart = false;
    }
    gate.count_down();
    return canStart;
}

/// Whether a region of that many threads may be entered without a risk for the process.
bool canFormTeam(int threads) {
    if (::getpid() != loadedBy) return false;  // the threads of a team did not come along with `fork`
    if (!canAllocate(kMemoryOfTeam + kMemoryPerThread * static_cast<std::size_t>(threads))) return false;
    if (triedTeam != threads) {
        if (!canStartThreads(threads - 1 + kSpareThreads)) return false;
        triedTeam = threads;
    }
    return true;
}

/// Judges a loop as it goes on whether the rest of it is worth a team. The time that has passed comes without a system
/// call, but holds what other processes took. It only arouses a suspicion; the processor time of the calling thread,
/// from then to the next look, has to confirm it.
class Judge {
  public:
    Judge(int count, std::int64_t worth) : count_(count), worth_(worth) {}
    /// Looks after 1, 2, 4, ... items. @param item  the items before it have run.
    bool isRestWorthIt(int item) {
        if (item < nextLook_) return false;
        const bool isConfirmed =
            suspectedAt_ > 0 && isWorthIt(timeOf(CLOCK_THREAD_CPUTIME_ID) - used_, suspectedAt_, item);
        if (isConfirmed) return true;
        const std::int64_t passed = timeOf(CLOCK_MONOTONIC) - begin_;
        suspectedAt_ = passed >= kTrial && isWorthIt(passed, 0, item) ? item : 0;
        if (suspectedAt_ > 0) used_ = timeOf(CLOCK_THREAD_CPUTIME_ID);
        // Items may be long: the look that confirms comes soon.
        nextLook_ = item + std::min(suspectedAt_ > 0 ? (item + kConfirming - 1) / kConfirming : item, count_ - item);
        return false;
    }

  private:
    /// @param time  that items `from` .. `to` - 1 took
    bool isWorthIt(std::int64_t time, int from, int to) const { return time / (to - from) * (count_ - to) >= worth_; }

    static constexpr int kConfirming = 4;
    const int count_;
    const std::int64_t worth_, begin_ = timeOf(CLOCK_MONOTONIC);
    int nextLook_ = 1, suspectedAt_ = 0;
    std::int64_t used_ = 0;
};

/// Runs items from 0 on until the rest of them is worth a team.
/// @return the first item that has not run.
int runAlone(int count, std::int64_t worth, LoopBody body) {
    Judge judge(count, worth);
    int item = 0;
    while (item < count && !judge.isRestWorthIt(item)) body(item++, 0);
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

void runShared(int first, int count, int threads, LoopBody body) {
    FirstFailure failure(count);
    // NOLINTNEXTLINE(clang-analyzer-deadcode.DeadStores): read by the region below
    const int portion = std::max(1, (count - first) / (kPortions * threads));
#pragma omp parallel for num_threads(threads) schedule(dynamic, portion) default(none) \
    shared(first, count, body, failure, portion)
    for (int item = first; item < count; ++item) {
        if (failure.isBefore(item)) continue;
        try {
            body(item, omp_get_thread_num());
        } catch (...) {  // none may leave a region
            failure.keep(item);
        }
    }
    failure.rethrow();
}

}  // namespace

int largestTeam() {
    if (omp_in_parallel()) return 1;
    return std::max(1, std::min(omp_get_max_threads(), omp_get_thread_limit()));
}

void forEachInParallel(int count, std::int64_t mostPerItem, LoopBody body) {
    const std::int64_t worth = leastSharedWork.load(std::memory_order_relaxed);
    int item = 0;
    if (worth > 0 && count < worth / std::max<std::int64_t>(1, mostPerItem)) {
        // Too little for a team, whatever the items are.
    } else if (const int most = largestTeam(); most > 1) {
        if (worth > 0) item = runAlone(count, worth, body);
        const int threads = std::min(most, count - item);
        if (threads > 1 && canFormTeam(threads)) {
            runShared(item, count, threads, body);
            return;
        }
    }
    for (; item < count; ++item) body(item, 0);
}

}  // namespace kestrune
