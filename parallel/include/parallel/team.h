// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>

namespace kestrune {

/// Work that any number of threads can do together.
class SharedWork {
  public:
    /// Takes part until nothing is left to begin. @param thread  number within the team; 0 is the owner's thread.
    virtual void help(int thread) noexcept = 0;

  protected:
    ~SharedWork() = default;
};

/// Threads that help the one that owns the team. They sleep while there is nothing to do. They belong to one thread at
/// a time: two calls of a host on two threads have a team each.
class Team {
  public:
    /// One that an earlier call has left, or a new one without threads.
    ///
    /// Threads are used again and not ended: for each thread that ends, OpenCV keeps what it knew of it, so that a host
    /// that runs all day would grow, and to keep it needs memory, without which the process ends.
    ///
    /// @throws std::bad_alloc
    static std::unique_ptr<Team> take();
    /// Leaves it, with its threads asleep, to a later call.
    static void giveBack(std::unique_ptr<Team> team) noexcept;

    Team();
    /// Lets the threads go. They end by themselves, and nobody waits until each of them had its turn.
    ~Team();
    Team(const Team&) = delete;
    Team& operator=(const Team&) = delete;

    /// Starts threads until there are as many.
    ///
    /// @throws std::system_error, std::bad_alloc where none can be started; those that run stay.
    void growTo(int size);
    int size() const { return size_; }

    /// Does the work on the calling thread, with those of up to `most` others that come in time.
    void share(SharedWork& work, int most);

  private:
    struct Post;
    static void serve(const std::shared_ptr<Post>& post);

    std::shared_ptr<Post> post_;
    int size_ = 0;
};

}  // namespace kestrune
