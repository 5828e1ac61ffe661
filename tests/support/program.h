// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/wait.h>

#include <array>
#include <cstdio>
#include <string>
#include <utility>

namespace kestrune::host {

/// Exit code of a shell command and what came out of both streams.
inline std::pair<int, std::string> shell(const std::string& command) {
    FILE* pipe = ::popen(("{ " + command + "; } 2>&1").c_str(), "r");
    std::string output;
    std::array<char, 4096> part{};
    while (const std::size_t n = std::fread(part.data(), 1, part.size(), pipe)) output.append(part.data(), n);
    const int status = ::pclose(pipe);
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, output};
}

inline std::pair<int, std::string> measure(const std::string& arguments) {
    return shell(KESTRUNE_MEASURE " " + arguments);
}

}  // namespace kestrune::host
