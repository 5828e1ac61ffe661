// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <atomic>
#include <csignal>
#include <string>

namespace kestrune::measure {

/// While it lives, the first Ctrl-C or SIGTERM asks the run to end after what is under way; a second one of either kind
/// kills as ever. One at a time.
class InterruptWatch {
  public:
    InterruptWatch();
    InterruptWatch(const InterruptWatch&) = delete;
    InterruptWatch& operator=(const InterruptWatch&) = delete;
    ~InterruptWatch();

    const std::atomic<bool>& asked() const;

    /// The exit code of the run: 128 and the signal's number after one, else `code`. Tells the user of the signal.
    ///
    /// @param done  what is done, for the user.
    int exitCode(int code, const std::string& done) const;

  private:
    struct sigaction interruptBefore_ {
    }, terminateBefore_{};
};

}  // namespace kestrune::measure
