// SPDX-License-Identifier: Apache-2.0
#include "terminal.h"

#include <cerrno>
#include <cstdio>
#include <iostream>
#include <system_error>

namespace kestrune::measure {
namespace {

int firstReason = 0;  // why standard output did not take something; 0: it took all

void note(bool failed) {
    if (failed && firstReason == 0) firstReason = errno == 0 ? EIO : errno;
}

}  // namespace

void say(const std::string& text) {
    errno = 0;
    const bool printed = std::fwrite(text.data(), 1, text.size(), stdout) == text.size();
    note(!printed || std::fflush(stdout) != 0);
}

void complain(const std::string& text) {
    std::fputs(("kestrune-measure: " + text + "\n").c_str(), stderr);
}

bool saidAll() {
    errno = 0;
    note(!std::cout.flush() || std::fflush(stdout) != 0 || std::ferror(stdout) != 0);
    if (firstReason == 0) return true;
    complain("standard output: cannot be written: " + std::generic_category().message(firstReason));
    return false;
}

}  // namespace kestrune::measure
