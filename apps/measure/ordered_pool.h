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

namespace kestrune::measure {

/// Runs `work(index, worker)` for each index below `count` on `workers` threads, and on the calling thread
/// `deliver(index, result)` in ascending order of the indices, each as soon as all before it are done, and
/// `watch(finished)` whenever something has finished and a few times a second.
///
/// At most four results a worker wait for a slow one before them: no index farther above that one is begun.
///
/// Once `stop` is set no further index is begun; those under way are finished and delivered. An exception of `deliver`
/// or `watch` leaves after the threads have been joined; `work` must not throw.
///
/// @return  the number of results that were delivered: those of the indices below it.
template <class Result, class Work, class Deliver, class Watch>
std::size_t inOrder(std::size_t count, std::size_t workers, const std::atomic<bool>& stop, const Work& work,
                    const Deliver& deliver, const Watch& watch) {
    constexpr std::chrono::milliseconds kWatchInterval(200);
    constexpr std::size_t kAhead = 4;
    std::mutex mutex;
    std::condition_variable changed;
    std::condition_variable_any room;
    std::map<std::size_t, Result> done;
    std::size_t next = 0, delivered = 0, finished = 0, running = std::min(workers, count);

    std::vector<std::jthread> threads;
    const auto run = [&](const std::stop_token& abandoned, std::size_t worker) {
        std::unique_lock lock(mutex);
        while (room.wait(lock, abandoned, [&] { return next < delivered + kAhead * workers; }) && !stop) {
            if (abandoned.stop_requested() || next >= count) break;
            const std::size_t index = next++;
            lock.unlock();
            Result result = work(index, worker);
            lock.lock();
            done.emplace(index, std::move(result));
            ++finished;
            changed.notify_one();
        }
        --running;
        changed.notify_one();
    };
    for (std::size_t worker = 0; worker < std::min(workers, count); ++worker) threads.emplace_back(run, worker);

    std::unique_lock lock(mutex);
    while (true) {
        while (!done.empty() && done.begin()->first == delivered) {
            const auto first = done.extract(done.begin());
            lock.unlock();
            deliver(first.key(), first.mapped());
            lock.lock();
            ++delivered;
            room.notify_all();
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

}  // namespace kestrune::measure
