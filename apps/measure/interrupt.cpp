// SPDX-License-Identifier: Apache-2.0
#include "interrupt.h"

#include "terminal.h"

namespace kestrune::measure {
namespace {

constexpr int kSignalBase = 128;  // as shells report the end by a signal

std::atomic<bool> askedToEnd = false;
std::atomic<int> askedBy = 0;
static_assert(std::atomic<bool>::is_always_lock_free && std::atomic<int>::is_always_lock_free,
              "a signal handler may write nothing else");

void onSignal(int number) {
    askedBy = number;
    askedToEnd = true;
    struct sigaction kill {};
    kill.sa_handler = SIG_DFL;
    sigaction(SIGINT, &kill, nullptr);
    sigaction(SIGTERM, &kill, nullptr);
}

}  // namespace

InterruptWatch::InterruptWatch() {
    askedToEnd = false;
    struct sigaction action {};
    action.sa_handler = onSignal;
    action.sa_flags = SA_RESTART;
    sigaddset(&action.sa_mask, SIGINT);  // the second is to find the handler of the first done
    sigaddset(&action.sa_mask, SIGTERM);
    sigaction(SIGINT, &action, &interruptBefore_);
    sigaction(SIGTERM, &action, &terminateBefore_);
}

InterruptWatch::~InterruptWatch() {
    sigaction(SIGINT, &interruptBefore_, nullptr);
    sigaction(SIGTERM, &terminateBefore_, nullptr);
}

const std::atomic<bool>& InterruptWatch::asked() const {
    return askedToEnd;
}

int InterruptWatch::exitCode(int code, const std::string& done) const {
    if (!askedToEnd) return code;
    complain("interrupted: " + done);
    return kSignalBase + askedBy;
}

}  // namespace kestrune::measure
