// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <cstddef>
#include <string>

namespace kestrune::measure {

/// A bar on standard error while many images are handled; silent for a single one and where nobody watches a terminal.
class Progress {
  public:
    explicit Progress(std::size_t total);
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;
    ~Progress() { clear(); }

    /// Shows that `done` items are finished, about how long the rest will take, and that `current` is under way.
    void show(std::size_t done, const std::string& current);

    /// Takes the bar away, so that a line can be printed in its place.
    void clear();

  private:
    std::size_t total_;
    bool visible_;
    std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
};

}  // namespace kestrune::measure
