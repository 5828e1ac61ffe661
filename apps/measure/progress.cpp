// SPDX-License-Identifier: Apache-2.0
#include "progress.h"

#include <fmt/format.h>
#include <unistd.h>

#include <cstdio>

namespace kestrune::measure {
namespace {

constexpr std::size_t kBarWidth = 24;
// Together with the bar and the figures this leaves a line of 80 columns unbroken.
constexpr std::size_t kNameWidth = 26;

/// As a person would say it: the guess is good to a tenth of it at best.
std::string plainDuration(double seconds) {
    if (seconds < 100) return fmt::format("{:.0f} s", seconds);
    if (seconds < 6000) return fmt::format("{:.0f} min", seconds / 60);
    return fmt::format("{:.1f} h", seconds / 3600);
}

}  // namespace

Progress::Progress(std::size_t total) : total_(total), visible_(total > 1 && isatty(STDERR_FILENO) == 1) {}

void Progress::show(std::size_t done, const std::string& current) {
    if (!visible_) return;
    const std::size_t filled = kBarWidth * done / total_;
    const std::string name =
        current.size() <= kNameWidth ? current : ".." + current.substr(current.size() - kNameWidth + 2);
    std::string left;
    if (done > 0) {
        const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - start_;
        left =
            plainDuration(elapsed.count() * static_cast<double>(total_ - done) / static_cast<double>(done)) + " left ";
    }
    const std::string bar = fmt::format("\r\033[K[{:#<{}}{:.<{}}] {}/{} {}{}", "", filled, "", kBarWidth - filled, done,
                                        total_, left, name);
    std::fputs(bar.c_str(), stderr);
    std::fflush(stderr);
}

void Progress::clear() {
    if (!visible_) return;
    std::fputs("\r\033[K", stderr);
    std::fflush(stderr);
}

}  // namespace kestrune::measure
