// SPDX-License-Identifier: Apache-2.0
//
// The one way of this library to share a loop among OpenMP threads.
#pragma once

#include <atomic>
#include <cstdint>
#include <type_traits>

namespace kestrune {

/// Work from which a loop is shared, ns on the caller's thread. A region ends when its last thread has come, and on a
/// machine whose processors are all taken that thread gets its turn some milliseconds late: less work than this is
/// done sooner by the caller's thread alone. With 0 every loop is shared at once, which is for tests.
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

/// Threads that a loop called from here may run on at most: OpenMP's default number, or 1 within a parallel region of
/// the host, which has its processors busy already.
int largestTeam();

/// Runs `body` for the items 0 .. `count` - 1. Each item writes only what belongs to it, so that the outcome depends
/// neither on the number of threads nor on whether there is more than one.
///
/// The caller's thread begins. Only if what is left is then seen to be worth it is a parallel region entered, and only
/// if the threads and the memory that OpenMP needs can be had: its runtime ends the process where they cannot. In every
/// other case, and in a child made by `fork`, where OpenMP's threads do not exist, the caller's thread goes on to the
/// end. Before the first region of a thread, and whenever the size of its team changes, as many threads are started and
/// joined once; if that fails the loop is not shared.
///
/// @param mostPerItem  the longest that one item may take, ns, as a bound and not a guess: a loop that stays below
///                     `leastSharedWork` by it does not look at the clock.
/// @throws what an item raised; if several did, what the first of them raised. Items behind it may not have run.
void forEachInParallel(int count, std::int64_t mostPerItem, LoopBody body);

}  // namespace kestrune
