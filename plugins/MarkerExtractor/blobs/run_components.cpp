// SPDX-License-Identifier: Apache-2.0
#include "blobs/run_components.h"

#include <algorithm>
#include <cstring>

namespace kestrune {

namespace {

using Parts = std::vector<ComponentPart>;

ComponentPart& partAt(Parts& parts, int place) {
    return parts[static_cast<std::size_t>(place)];
}

int rootOf(Parts& parts, int place) {
    while (partAt(parts, place).parent != place) {
        int& parent = partAt(parts, place).parent;
        parent = partAt(parts, parent).parent;
        place = parent;
    }
    return place;
}

/// The earlier root stays, so that a part's parent never comes after it.
int unite(Parts& parts, int a, int b) {
    a = rootOf(parts, a);
    b = rootOf(parts, b);
    partAt(parts, std::max(a, b)).parent = std::min(a, b);
    return std::min(a, b);
}

/// Calls `meet` for each run and each one of the row above that it touches, by a corner too.
template <typename Meet>
void forEachContact(const std::vector<PixelRun>& above, PixelRun& run, std::size_t& next, const Meet& meet) {
    while (next < above.size() && above[next].end < run.begin) ++next;
    for (std::size_t k = next; k < above.size() && above[k].begin <= run.end; ++k) meet(above[k]);
}

/// Moves what is known of each component into its root.
void gatherAtRoots(Parts& parts) {
    for (std::size_t k = 0; k < parts.size(); ++k) {
        const int root = rootOf(parts, static_cast<int>(k));
        if (root != static_cast<int>(k)) partAt(parts, root).add(parts[k]);
    }
}

/// Calls `take` for the runs of a row.
template <typename Take>
void forEachRun(const uchar* bright, std::size_t size, const Take& take) {
    constexpr std::size_t kWord = sizeof(std::uint64_t);
    for (std::size_t x = 0; x < size;) {
        std::uint64_t word = 1;
        if (x % kWord == 0) std::memcpy(&word, bright + x, kWord);
        if (word == 0) {
            x += kWord;
        } else if (bright[x] == 0) {
            ++x;
        } else {
            const std::size_t begin = x;
            while (x < size && bright[x] != 0) ++x;
            take(static_cast<int>(begin), static_cast<int>(x));
        }
    }
}

}  // namespace

void ComponentPart::add(const PixelRun& run, int row) {
    const int count = run.end - run.begin;
    left = std::min(left, run.begin);
    right = std::max(right, run.end);
    bottom = row + 1;
    area += count;
    sumX += static_cast<std::uint64_t>(run.begin + run.end - 1) * static_cast<std::uint64_t>(count) / 2;
    sumY += static_cast<std::uint64_t>(row) * static_cast<std::uint64_t>(count);
    firstBlock = std::min(firstBlock, static_cast<std::uint64_t>(row / 2) << 32 | static_cast<unsigned>(run.begin / 2));
}

void ComponentPart::add(const ComponentPart& other) {
    left = std::min(left, other.left);
    right = std::max(right, other.right);
    top = std::min(top, other.top);
    bottom = std::max(bottom, other.bottom);
    area += other.area;
    sumX += other.sumX;
    sumY += other.sumY;
    firstBlock = std::min(firstBlock, other.firstBlock);
}

BrightBlob ComponentPart::blob() const {
    return {cv::Rect(left, top, right - left, bottom - top), area,
            cv::Point2d(static_cast<double>(sumX) / area, static_cast<double>(sumY) / area)};
}

void RowComponents::begin(int firstRow) {
    firstRow_ = nextRow_ = firstRow;
    parts.clear();
    firstRuns.clear();
    lastRuns.clear();
}

void RowComponents::addRow(const uchar* bright, std::size_t size) {
    const int row = nextRow_++;
    current_.clear();
    std::size_t next = 0;
    const auto take = [&](int first, int end) {
        PixelRun run = {first, end, -1};
        forEachContact(lastRuns, run, next, [&](const PixelRun& touched) {
            run.part = run.part < 0 ? touched.part : unite(parts, run.part, touched.part);
        });
        if (run.part < 0) {
            run.part = static_cast<int>(parts.size());
            parts.push_back({run.part, first, end, row, row + 1, 0, 0, 0, ~std::uint64_t{0}});
        }
        partAt(parts, run.part).add(run, row);
        current_.push_back(run);
    };
    if (bright != nullptr) forEachRun(bright, size, take);
    std::swap(current_, lastRuns);
    if (row == firstRow_) firstRuns = lastRuns;
}

void RowComponents::finish() {
    gatherAtRoots(parts);
    places_.resize(parts.size());
    std::size_t kept = 0;
    for (std::size_t k = 0; k < parts.size(); ++k) {
        const ComponentPart part = parts[k];
        if (part.parent != static_cast<int>(k)) {
            places_[k] = places_[static_cast<std::size_t>(part.parent)];
            continue;
        }
        places_[k] = static_cast<int>(kept);
        parts[kept] = part;
        parts[kept].parent = static_cast<int>(kept);
        ++kept;
    }
    parts.resize(kept, ComponentPart{});
    for (std::vector<PixelRun>* const runs : {&firstRuns, &lastRuns}) {
        for (PixelRun& run : *runs) run.part = places_[static_cast<std::size_t>(run.part)];
    }
}

void ComponentSeams::join(const std::vector<RowComponents>& strips, std::size_t count, std::vector<BrightBlob>& blobs) {
    parts_.clear();
    above_.clear();
    for (std::size_t k = 0; k < count; ++k) {
        const auto offset = static_cast<int>(parts_.size());
        for (ComponentPart part : strips[k].parts) {
            part.parent += offset;
            parts_.push_back(part);
        }
        std::size_t next = 0;
        for (PixelRun run : strips[k].firstRuns) {
            run.part += offset;
            forEachContact(above_, run, next, [&](const PixelRun& touched) { unite(parts_, run.part, touched.part); });
        }
        above_ = strips[k].lastRuns;
        for (PixelRun& run : above_) run.part += offset;
    }
    gatherAtRoots(parts_);
    std::size_t place = 0;
    std::erase_if(parts_, [&](const ComponentPart& part) { return part.parent != static_cast<int>(place++); });
    std::ranges::sort(parts_, {}, &ComponentPart::firstBlock);
    blobs.clear();
    blobs.reserve(parts_.size());
    for (const ComponentPart& part : parts_) blobs.push_back(part.blob());
}

}  // namespace kestrune
