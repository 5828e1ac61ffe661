// SPDX-License-Identifier: Apache-2.0
//
// Density of a number by kernels exp(-|x| / b) / (2 b) of several widths b, on a grid: sums of such kernels are two
// recursions over the cells, whatever their number. Their tails are long, as is right where the next value may be of a
// kind that was not seen yet.
#pragma once

#include <array>
#include <cmath>
#include <cstddef>
#include <vector>

namespace kestrune::matching {

class KernelGrid {
  public:
    static constexpr std::size_t kWidths = 3;

    /// @param low, high  range of the values; those beyond count at its ends.
    /// @param widths     above 0; the step is a third of the first, or what `kMostCells` allow.
    KernelGrid(double low, double high, const std::array<double, kWidths>& widths);

    void add(double x, double weight);
    void smooth();  ///< once, after the last `add`

    /// Sum of the weights times the kernel.
    double value(std::size_t width, double x) const { return interpolate(sums_[width], x); }
    /// Of numbers on the cells.
    double interpolate(const std::vector<double>& values, double x) const {
        const double place = placeOf(x);
        const auto cell = static_cast<std::size_t>(place);
        return values[cell] + (place - static_cast<double>(cell)) * (values[cell + 1] - values[cell]);
    }
    double kernel(std::size_t width, double x) const { return interpolateKernel(kernels_[width], x); }
    /// Of numbers by cells from a kernel's centre; 0 beyond them.
    double interpolateKernel(const std::vector<double>& values, double x) const {
        const double place = std::abs(x) / step_;
        if (!(place < static_cast<double>(values.size() - 1))) return 0;
        const auto cell = static_cast<std::size_t>(place);
        return values[cell] + (place - static_cast<double>(cell)) * (values[cell + 1] - values[cell]);
    }
    /// All kernels by their shares, by cells from the centre.
    std::vector<double> mixedKernel(const std::array<double, kWidths>& shares) const;
    double width(std::size_t k) const { return widths_[k]; }
    double place(std::size_t cell) const { return low_ + static_cast<double>(cell) * step_; }
    std::size_t cells() const { return counts_.size(); }
    double at(std::size_t width, std::size_t cell) const { return sums_[width][cell]; }

  private:
    double placeOf(double x) const {
        const double place = (x - low_) / step_, last = static_cast<double>(counts_.size()) - 1.001;
        return place > 0 ? (place < last ? place : last) : 0;
    }

    double low_, step_;
    std::array<double, kWidths> widths_;
    std::vector<double> counts_;
    std::array<std::vector<double>, kWidths> sums_;
    std::array<std::vector<double>, kWidths> kernels_;  ///< by cells from the centre
};

}  // namespace kestrune::matching
