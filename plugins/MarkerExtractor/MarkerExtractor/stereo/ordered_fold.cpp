// SPDX-License-Identifier: Apache-2.0
#include "MarkerExtractor/stereo/ordered_fold.h"

#include <algorithm>

#include "MarkerExtractor/stereo/index.h"

namespace kestrune::constellation {

namespace {

/// Hypotheses that must stand before a large one is believed, and, times the patience, before any is.
constexpr int kConfirmations = 6;

}  // namespace

void InOrderFold::beginBatch(int items) {
    items_ = items;
    next_ = lastSubmitted_ = 0;
    validKnown_ = validCount_;
    bestKnown_ = bestCount_;
    if (outcomes_.size() < asIndex(items)) outcomes_.resize(asIndex(items));
    for (int item = 0; item < items; ++item) outcomes_[asIndex(item)].isIn = false;
    lastNeeded_.store(items - 1, std::memory_order_relaxed);
}

bool InOrderFold::endsSearch(int validCount, int bestCount) const {
    return (validCount >= kConfirmations && bestCount >= required_) || validCount >= kConfirmations * patience_;
}

void InOrderFold::takeIn(Outcome& outcome) {
    if (outcome.pairs.empty()) return;
    ++validCount_;
    const int count = static_cast<int>(outcome.pairs.size());
    if (count > bestCount_ || (count == bestCount_ && outcome.error < bestError_)) {
        best_.swap(outcome.pairs);
        bestCount_ = count;
        bestError_ = outcome.error;
    }
    succeeded_ = endsSearch(validCount_, bestCount_);
}

void InOrderFold::submit(int item, std::vector<CompactPair>& pairs, double error) {
    const std::lock_guard lock(mutex_);
    if (!pairs.empty()) {
        ++validKnown_;
        bestKnown_ = std::max(bestKnown_, static_cast<int>(pairs.size()));
    }
    lastSubmitted_ = std::max(lastSubmitted_, item);
    Outcome& outcome = outcomes_[asIndex(item)];
    outcome.isIn = true;
    outcome.error = error;
    // A refused hypothesis leaves the thread its storage, so that none has to be found for the next one.
    outcome.pairs.clear();
    if (!pairs.empty()) outcome.pairs.swap(pairs);
    while (next_ < items_ && outcomes_[asIndex(next_)].isIn && !succeeded_) takeIn(outcomes_[asIndex(next_++)]);
    // If all that is known now is enough to end the search, it ends at the latest with the last item handed in.
    int last = lastNeeded_.load(std::memory_order_relaxed);
    if (succeeded_) {
        last = std::min(last, next_ - 1);
    } else if (endsSearch(validKnown_, bestKnown_)) {
        last = std::min(last, lastSubmitted_);
    }
    lastNeeded_.store(last, std::memory_order_relaxed);
}

}  // namespace kestrune::constellation
