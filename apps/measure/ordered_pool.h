// SPDX-License-Identifier: Apache-2.0
//
// Many like jobs on a few threads, with their results in the order of the jobs.
#pragma once

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <map>
#include <mutex>
#include <thread>
#include <vector>

namespace kestrune::host {

/// Runs `work(index, worker)` for each index below `count` on `workers` threads, and on the calling thread
/// `deliver(index, result)` in ascending order of the indices, each as soon as all before it are done, and
/// `watch(finished)` whenever something has finished and a few times a second.
///
/// Once `stop` is set no further index is begun; those under way are finished and delivered. An exception of `deliver`
/// or `watch` leaves after the threads have been joined; `work` must not throw.
///
/// @return  the number of results that were delivered: those of the indices below it.
template <class Result, class Work, class Deliver, class Watch>
std::size_t inOrder(std::size_t count, std::size_t workers, const std::atomic<bool>& stop, const Work& work,
                    const Deliver& deliver, const Watch& watch) {
    constexpr std::chrono::milliseconds kWatchInterval(200);
    std::mutex mutex;
    std::condition_variable changed;
    std::map<std::size_t, Result> done;
    std::size_t finished = 0, running = std::min(workers, count);
    std::atomic<std::size_t> next = 0;

    std::vector<std::jthread> threads;
    const auto run = [&](const std::stop_token& abandoned, std::size_t worker) {
        while (!abandoned.stop_requested() && !stop) {
            const std::size_t index = next++;
            if (index >= count) break;
            Result result = work(index, worker);
            const std::lock_guard lock(mutex);
            done.emplace(index, std::move(result));
            ++finished;
            changed.notify_one();
        }
        const std::lock_guard lock(mutex);
        --running;
        changed.notify_one();
    };
    for (std::size_t worker = 0; worker < std::min(workers, count); ++worker) threads.emplace_back(run, worker);

    std::size_t delivered = 0;
    std::unique_lock lock(mutex);
    while (true) {
        while (!done.empty() && done.begin()->first == delivered) {
            const auto first = done.extract(done.begin());
            lock.unlock();
            deliver(delivered++, first.mapped());
            lock.lock();
        }
        if (running == 0 && done.empty()) break;
        const std::size_t seen = finished;
        lock.unlock();
        watch(seen);
        lock.lock();
        changed.wait_for(lock, kWatchInterval, [&] { return finished != seen || running == 0; });
    }
    return delivered;
}

}  // namespace kestrune::host
