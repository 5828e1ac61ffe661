// SPDX-License-Identifier: Apache-2.0
//
// A host that calls every operation of the installed library: what cannot be linked or called from C++17 shows here.
#include "../../support/every_operation.h"

#include <cstdio>
#include <cstring>

int main() {
    every_operation::Host host;
    for (const auto& [name, count, run] : every_operation::kOperations) {
        every_operation::Result result;
        run(host, result);
        const std::vector<double> numbers = result.all();
        const bool isFar = std::strncmp(name, "stereo", 6) == 0 && !(std::abs(numbers.back() - every_operation::Host::kDepth) < 20);
        if (numbers.size() != count || isFar) return std::fprintf(stderr, "wrong: %s, %zu numbers\n", name, numbers.size()), 1;
    }
    std::puts("every operation");
}
