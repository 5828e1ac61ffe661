// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <exception>
#include <thread>
#include <vector>

namespace kestrune {

/// A strip of columns that one thread works on.
struct EdgeStrip {
    int firstColumn;
    int width;
};

/// Runs `work` on every strip and its number, one thread each, and waits for all of them. If a thread cannot be
/// started, those that run are waited for before the error leaves; what strips raise leaves in strip order.
template <typename Work>
void runOnStrips(const std::vector<EdgeStrip>& strips, const Work& work) {
    std::vector<std::exception_ptr> failures(strips.size());
    {
        std::vector<std::jthread> threads;  // joins in its destructor, also when starting the next one fails
        threads.reserve(strips.size());
        for (std::size_t k = 0; k < strips.size(); ++k) {
            threads.emplace_back([&, k] {
                try {
                    work(strips[k], k);
                } catch (...) {
                    failures[k] = std::current_exception();
                }
            });
        }
    }
    for (const std::exception_ptr& failure : failures) {
        if (failure) std::rethrow_exception(failure);
    }
}

}  // namespace kestrune
