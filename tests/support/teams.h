// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <omp.h>

#include "parallel/parallel_loop.h"

namespace kestrune::test {

/// Shares every loop, however small, among as many threads as `omp_set_num_threads` says, for its life.
struct SharedLoops {
    SharedLoops() { leastSharedWork = 0; }
    ~SharedLoops() { leastSharedWork = usual, omp_set_num_threads(threads); }
    const std::int64_t usual = leastSharedWork;
    const int threads = omp_get_max_threads();
};

}  // namespace kestrune::test
