// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <atomic>
#include <limits>
#include <mutex>
#include <utility>
#include <vector>

namespace kestrune::constellation {

/// (position of the left marker, position of the right one) among the active markers.
using CompactPair = std::pair<int, int>;

/// Combines what the threads find in the order in which a single thread would find it. The hypotheses of a batch are
/// numbered; a later one waits until all earlier ones have been taken in.
class InOrderFold {
  public:
    InOrderFold(int required, int patience) : required_(required), patience_(patience) {}

    void beginBatch(int items);
    /// False once it is certain that the search ends before this item.
    bool isNeeded(int item) const { return item <= lastNeeded_.load(std::memory_order_relaxed); }
    /// Hands in an item's outcome; every item that is needed is handed in once.
    /// @param pairs  taken over, empty for a hypothesis that does not stand
    void submit(int item, std::vector<CompactPair>& pairs, double error);

    bool succeeded() const { return succeeded_; }
    std::vector<CompactPair>& best() { return best_; }

  private:
    struct Outcome {
        bool isIn = false;
        double error = 0;
        std::vector<CompactPair> pairs;
    };
    void takeIn(Outcome& outcome);
    bool endsSearch(int validCount, int bestCount) const;

    const int required_, patience_;
    int validCount_ = 0;
    int bestCount_ = std::numeric_limits<int>::min();
    double bestError_ = std::numeric_limits<double>::max();
    std::vector<CompactPair> best_;
    bool succeeded_ = false;

    // Of the batch. What is known of all items handed in, taken in or still waiting, bounds where the search ends.
    std::vector<Outcome> outcomes_;
    int items_ = 0, next_ = 0, lastSubmitted_ = 0;
    int validKnown_ = 0, bestKnown_ = 0;
    std::atomic<int> lastNeeded_{0};
    std::mutex mutex_;
};

}  // namespace kestrune::constellation
