// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <omp.h>

#include <atomic>

namespace kestrune::python {

/// Threads that a call may use, for the whole process; 0: as many as OpenMP takes by itself.
inline std::atomic<int>& wantedThreads() {
    static std::atomic<int> count{0};
    return count;
}

/// OpenMP keeps the number for each thread of the process: every call sets it for its own.
inline void applyWantedThreads() {
    if (const int count = wantedThreads(); count > 0 && count != omp_get_max_threads()) omp_set_num_threads(count);
}

}  // namespace kestrune::python
