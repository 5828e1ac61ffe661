// SPDX-License-Identifier: Apache-2.0
#include "parallel/team.h"

#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cfenv>
#include <condition_variable>
#include <csignal>
#include <mutex>
#include <thread>
#include <vector>

namespace kestrune {

namespace {

/// Looks at the count of those still at work before the owner goes to sleep: some microseconds. The last item of
/// another thread ends within them more often than not, and to be woken takes longer.
constexpr int kLooks = 200;

void pause() {
#if defined(__x86_64__) || defined(__i386__)
    __builtin_ia32_pause();
#endif
}

/// Signals are for the host's threads; one that is started inherits what its starter blocks.
class BlockedSignals {
  public:
    BlockedSignals() {
        sigset_t all;
        ::sigfillset(&all);
        ::pthread_sigmask(SIG_SETMASK, &all, &before_);
    }
    ~BlockedSignals() { ::pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
    BlockedSignals(const BlockedSignals&) = delete;
    BlockedSignals& operator=(const BlockedSignals&) = delete;

  private:
    sigset_t before_{};
};

/// Teams whose calls have ended, of this process. A lock that another thread holds, perhaps for ever since this is a
/// child that `fork` made at that moment, is not waited for.
struct IdleTeams {
    std::mutex mutex;
    pid_t process = ::getpid();
    std::vector<std::unique_ptr<Team>> teams;

    /// The threads of teams of a parent did not come along with `fork`.
    void forgetParents() {
        if (process == ::getpid()) return;
        for (std::unique_ptr<Team>& team : teams) static_cast<void>(team.release());
        teams.clear();
        process = ::getpid();
    }
};

/// Never destroyed: calls may run while `exit` does.
IdleTeams& idleTeams() {
    static IdleTeams& idle = *new IdleTeams;
    return idle;
}

}  // namespace

std::unique_ptr<Team> Team::take() {
    IdleTeams& idle = idleTeams();
    if (const std::unique_lock lock(idle.mutex, std::try_to_lock); lock) {
        idle.forgetParents();
        if (!idle.teams.empty()) {
            std::unique_ptr<Team> team = std::move(idle.teams.back());
            idle.teams.pop_back();
            return team;
        }
    }
    return std::make_unique<Team>();
}

void Team::giveBack(std::unique_ptr<Team> team) noexcept {
    try {
        IdleTeams& idle = idleTeams();
        const std::unique_lock lock(idle.mutex, std::try_to_lock);
        if (!lock) return;
        idle.forgetParents();
        idle.teams.push_back(std::move(team));
    } catch (const std::exception&) {  // std::bad_alloc: the team ends here
    }
}

/// What owner and threads have in common; the last of them removes it.
struct Team::Post {
    std::mutex mutex;
    std::condition_variable workIsThere, allHaveLeft;
    SharedWork* work = nullptr;  ///< none: there is nothing to begin any more
    int places = 0;              ///< left for threads that come
    int entered = 0;             ///< threads that took a place of this work
    std::fenv_t arithmetic{};    ///< the owner's: how a host has its threads round is how all of them round
    std::atomic<int> inside{0};  ///< changes under the mutex
    bool isOver = false;
};

Team::Team() : post_(std::make_shared<Post>()) {}

Team::~Team() {
    {
        const std::lock_guard lock(post_->mutex);
        post_->isOver = true;
    }
    post_->workIsThere.notify_all();
}

void Team::growTo(int size) {
    if (size <= size_) return;
    const BlockedSignals blocked;
    for (; size_ < size; ++size_) std::thread([post = post_] { serve(post); }).detach();
}

void Team::serve(const std::shared_ptr<Post>& post) {
    std::unique_lock lock(post->mutex);
    for (;;) {
        post->workIsThere.wait(lock, [&] { return post->isOver || (post->work != nullptr && post->places > 0); });
        if (post->isOver) return;
        --post->places;
        SharedWork& work = *post->work;
        const int thread = ++post->entered;
        post->inside.fetch_add(1, std::memory_order_relaxed);
        std::fesetenv(&post->arithmetic);
        lock.unlock();
        work.help(thread);
        lock.lock();
        if (post->inside.fetch_sub(1, std::memory_order_release) == 1) post->allHaveLeft.notify_one();
    }
}

void Team::share(SharedWork& work, int most) {
    Post& post = *post_;
    const int places = std::min(most, size_);
    {
        const std::lock_guard lock(post.mutex);
        post.work = &work;
        post.places = places;
        post.entered = 0;
        std::fegetenv(&post.arithmetic);
    }
    for (int k = 0; k < places; ++k) post.workIsThere.notify_one();
    work.help(0);
    std::unique_lock lock(post.mutex);
    post.work = nullptr;  // who comes now comes too late
    if (post.inside.load(std::memory_order_relaxed) == 0) return;
    lock.unlock();
    for (int look = 0; look < kLooks && post.inside.load(std::memory_order_acquire) > 0; ++look) pause();
    lock.lock();
    post.allHaveLeft.wait(lock, [&] { return post.inside.load(std::memory_order_relaxed) == 0; });
}

}  // namespace kestrune
