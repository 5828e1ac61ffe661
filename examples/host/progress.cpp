// SPDX-License-Identifier: Apache-2.0
#include "progress.h"

#include <fmt/format.h>
#include <unistd.h>

#include <cstdio>

namespace kestrune::host {
namespace {

constexpr std::size_t kBarWidth = 30;
// Together with the bar and the figures this leaves a line of 80 columns unbroken.
constexpr std::size_t kNameWidth = 30;

}  // namespace

Progress::Progress(std::size_t total) : total_(total), visible_(total > 1 && isatty(STDERR_FILENO) == 1) {}

void Progress::show(std::size_t done, const std::string& current) {
    if (!visible_) return;
    const std::size_t filled = kBarWidth * done / total_;
    const std::string name =
        current.size() <= kNameWidth ? current : ".." + current.substr(current.size() - kNameWidth + 2);
    fmt::print(stderr, "\r\033[K[{:#<{}}{:.<{}}] {}/{} {}", "", filled, "", kBarWidth - filled, done, total_, name);
    std::fflush(stderr);
}

void Progress::clear() {
    if (!visible_) return;
    fmt::print(stderr, "\r\033[K");
    std::fflush(stderr);
}

}  // namespace kestrune::host
