// SPDX-License-Identifier: Apache-2.0
//
// Lengths by size, in bins, to find those of one size without a search. Several tables in one, of equal bins.
#pragma once

#include <algorithm>
#include <cstddef>
#include <vector>

namespace kestrune::matching {

class LengthTable {
  public:
    struct Entry {
        double length;
        int table, from, to;
    };

    LengthTable() = default;
    LengthTable(const std::vector<Entry>& entries, std::size_t tables, std::size_t bins)
        : bins_(bins), start_(tables * bins + 2), entries_(entries.size()) {
        for (const Entry& entry : entries) longest_ = std::max(longest_, entry.length);
        perUnit_ = longest_ > 0 ? static_cast<double>(bins - 1) / longest_ : 0;
        for (const Entry& entry : entries) ++start_[at(entry.table, entry.length) + 2];
        for (std::size_t k = 1; k < start_.size(); ++k) start_[k] += start_[k - 1];
        for (const Entry& entry : entries) entries_[start_[at(entry.table, entry.length) + 1]++] = entry;
    }

    double longest() const { return longest_; }

    /// About as many as there are within `most` of a length; none only if there is none.
    std::size_t count(int table, double length, double most) const {
        if (length - most > longest_) return 0;
        return start_[at(table, length + most) + 1] - start_[at(table, length - most)];
    }

    template <typename Body>
    void forNear(int table, double length, double most, const Body& body) const {
        if (length - most > longest_) return;
        const std::size_t end = start_[at(table, length + most) + 1];
        for (std::size_t k = start_[at(table, length - most)]; k < end; ++k)
            if (entries_[k].length - length < most && length - entries_[k].length < most) body(entries_[k]);
    }

  private:
    std::size_t at(int table, double length) const {
        const double bin = length * perUnit_;  // of lengths that are hardly numbers, NaN
        const double within = bin > 0 ? std::min(bin, static_cast<double>(bins_ - 1)) : 0;
        return static_cast<std::size_t>(table) * bins_ + static_cast<std::size_t>(within);
    }

    std::size_t bins_ = 1;
    double longest_ = 0, perUnit_ = 0;
    std::vector<std::size_t> start_;
    std::vector<Entry> entries_;
};

}  // namespace kestrune::matching
