// SPDX-License-Identifier: Apache-2.0
#include "matching/kernel_grid.h"

#include <algorithm>

namespace kestrune::matching {
namespace {

constexpr double kMostCells = 2000;

}  // namespace

KernelGrid::KernelGrid(double low, double high, const std::array<double, kWidths>& widths)
    : low_(low), step_(std::max(widths[0] / 3, (high - low) / kMostCells)), widths_(widths) {
    counts_.assign(static_cast<std::size_t>((high - low) / step_) + 2, 0.0);
    for (double& width : widths_) width = std::max(width, step_);
    for (std::size_t k = 0; k < kWidths; ++k) {
        sums_[k].assign(counts_.size(), 0.0);
        // What the recursions make of one value: the geometric series, not its limit.
        const double a = std::exp(-step_ / widths_[k]);
        double value = (1 - a) / (1 + a) / step_;
        for (std::size_t c = 0; c < counts_.size() + 1 && value > 0; ++c, value *= a) kernels_[k].push_back(value);
    }
}

void KernelGrid::add(double x, double weight) {
    const double place = placeOf(x);
    const auto cell = static_cast<std::size_t>(place);
    const double share = place - static_cast<double>(cell);
    counts_[cell] += (1 - share) * weight;
    counts_[cell + 1] += share * weight;
}

void KernelGrid::smooth() {
    for (std::size_t k = 0; k < kWidths; ++k) {
        const double a = std::exp(-step_ / widths_[k]), scale = (1 - a) / (1 + a) / step_;
        std::vector<double>& sum = sums_[k];
        sum.resize(counts_.size());
        double run = 0;
        for (std::size_t c = 0; c < counts_.size(); ++c) sum[c] = run = a * run + counts_[c];
        run = 0;
        for (std::size_t c = counts_.size(); c-- > 0;) {
            sum[c] = scale * (sum[c] + run);
            run = a * (run + counts_[c]);
        }
    }
}

std::vector<double> KernelGrid::mixedKernel(const std::array<double, kWidths>& shares) const {
    std::vector<double> mixed(1, 0.0);
    for (std::size_t k = 0; k < kWidths; ++k) {
        mixed.resize(std::max(mixed.size(), kernels_[k].size()), 0.0);
        for (std::size_t c = 0; c < kernels_[k].size(); ++c) mixed[c] += shares[k] * kernels_[k][c];
    }
    return mixed;
}

}  // namespace kestrune::matching
