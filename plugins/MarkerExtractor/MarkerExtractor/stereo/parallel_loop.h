// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <exception>
#include <vector>

namespace kestrune {

/// Runs `body(i)` for i in 0 .. count - 1 on the default number of OpenMP threads. Each body writes only what belongs
/// to its i, so that the outcome does not depend on the threads.
///
/// No exception may leave a parallel region: each is kept until the loop is over, and the one of the lowest i goes on
/// to the caller, as if a single thread had run.
template <typename Body>
void forEachInParallel(int count, const Body& body) {
    if (count <= 0) return;
    std::vector<std::exception_ptr> failures(static_cast<std::size_t>(count));
#pragma omp parallel for default(none) shared(count, body, failures)
    for (int i = 0; i < count; ++i) {
        try {
            body(i);
        } catch (...) {
            failures[static_cast<std::size_t>(i)] = std::current_exception();
        }
    }
    for (const std::exception_ptr& failure : failures) {
        if (failure) std::rethrow_exception(failure);
    }
}

}  // namespace kestrune
