// SPDX-License-Identifier: Apache-2.0
//
// The one way of this library to share a loop among threads.
#pragma once

#include <atomic>
#include <cstdint>
#include <type_traits>

namespace kestrune {

/// Work from which a loop is shared, ns on the caller's thread: several times what it costs to wake a thread. With 0
/// every loop is shared at once, which is for tests.
extern std::atomic<std::int64_t> leastSharedWork;

/// The body of a loop, by reference: `item` and the number of the thread that runs it, below `largestTeam()`.
class LoopBody {
  public:
    template <typename Body>
    LoopBody(const Body& body)  // NOLINT(google-explicit-constructor): a loop is called with a lambda
        : body_(&body), call_([](const void* self, int item, int thread) {
              const Body& function = *static_cast<const Body*>(self);
              if constexpr (std::is_invocable_v<const Body&, int, int>) {
                  function(item, thread);
              } else {
                  function(item);
              }
          }) {}
    void operator()(int item, int thread) const { call_(body_, item, thread); }

  private:
    const void* body_;
    void (*call_)(const void*, int, int);
};

/// Threads that a loop called from here may run on at most, the caller's among them: OpenMP's default number, by which
/// a host limits them, or 1 within an item of a loop and within a parallel region of the host, which have their
/// processors busy already.
int largestTeam();

/// Runs `body` for the items 0 .. `count` - 1. Each item writes only what belongs to it, so that the outcome depends
/// neither on the number of threads nor on whether there is more than one.
///
/// The caller's thread begins. Once what is left is seen to be worth it, others are woken and help. The loop ends when
/// all items have run: a thread that has not come by then is not waited for, so that on a machine whose processors are
/// all taken the caller's thread does the work by itself. A thread that cannot be started is done without.
///
/// @param mostPerItem  the longest that one item may take, ns, as a bound and not a guess: a loop that stays below
///                     `leastSharedWork` by it does not look at the clock.
/// @throws what an item raised; if several did, what the first of them raised. Items behind it may not have run.
void forEachInParallel(int count, std::int64_t mostPerItem, LoopBody body);

/// The same for items that are known to be long, say a few rows of an image each: others are woken at once.
void forEachLongItem(int count, LoopBody body);

/// A call of the library. Threads that its loops need are its own until it ends; then they sleep, and later calls use
/// them again. Within another call on the same thread, or where no loop is shared, it does nothing. A loop outside of
/// any call is one of its own.
class ParallelCall {
  public:
    ParallelCall() noexcept;
    ~ParallelCall();
    ParallelCall(const ParallelCall&) = delete;
    ParallelCall& operator=(const ParallelCall&) = delete;

  private:
    bool isOutermost_;
};

}  // namespace kestrune
