// SPDX-License-Identifier: Apache-2.0
//
// Loops over pixels that compilers make vectors of, twice: for any machine and for one with AVX2. Both do whole-number
// arithmetic only, so that they agree.
#pragma once

#include <array>
#include <cstddef>
#include <opencv2/core.hpp>
#include <utility>

#if defined(__x86_64__)
#define KESTRUNE_WIDE [[gnu::target("avx2")]]
#else
#define KESTRUNE_WIDE
#endif
/// Part of both: it becomes what the function around it is.
#define KESTRUNE_BOTH [[gnu::always_inline]] inline

namespace kestrune {

/// Pixels of one inner loop, whose constant length lets compilers do without a remainder.
inline constexpr int kLanes = 32;

inline bool hasWideLanes() {
#if defined(__x86_64__)
    return cv::checkHardwareSupport(CV_CPU_AVX2);
#else
    return false;
#endif
}

/// What `pick` gives for 0 .. kCount - 1, each as a constant.
template <typename Function, std::size_t kCount, typename Pick>
constexpr std::array<Function, kCount> functionTable(const Pick& pick) {
    return [&pick]<std::size_t... kIndex>(std::index_sequence<kIndex...>) {
        return std::array<Function, kCount>{pick(std::integral_constant<std::size_t, kIndex>())...};
    }
    (std::make_index_sequence<kCount>());
}

}  // namespace kestrune
