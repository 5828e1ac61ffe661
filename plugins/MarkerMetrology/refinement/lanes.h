// SPDX-License-Identifier: Apache-2.0
//
// Eight numbers at a time, for any machine: compilers make one or two instructions of them, without any licence to
// change the order of sums. A function that is compiled twice, for any machine and for one with AVX2, gives the same
// bits: both do the same operations on the same eight numbers, and nothing is fused.
#pragma once

#include <cstdint>
#include <cstring>
#include <opencv2/core.hpp>

#if defined(__x86_64__)
#define KESTRUNE_WIDE [[gnu::target("avx2")]]
#else
#define KESTRUNE_WIDE
#endif
/// Part of both: it becomes what the function around it is.
#define KESTRUNE_BOTH [[gnu::always_inline]] inline

namespace kestrune::refinement {

using Lanes = float __attribute__((vector_size(32)));
using IntLanes = std::int32_t __attribute__((vector_size(32)));
inline constexpr int kLanes = 8;

inline bool hasWideLanes() {
#if defined(__x86_64__)
    static const bool has = cv::checkHardwareSupport(CV_CPU_AVX2);
    return has;
#else
    return false;
#endif
}

// By reference only: how such a value is handed over differs between the two.
KESTRUNE_BOTH void load(const float* from, Lanes& to) {
    std::memcpy(&to, from, sizeof to);
}
KESTRUNE_BOTH void store(float* to, const Lanes& value) {
    std::memcpy(to, &value, sizeof value);
}
KESTRUNE_BOTH float sum(const Lanes& v) {
    return ((v[0] + v[4]) + (v[2] + v[6])) + ((v[1] + v[5]) + (v[3] + v[7]));
}

/// exp(x) for x of -80 to 0, to 2e-7 of itself: 2^k times a polynomial on half a binade to either side (the Taylor
/// series of exp to its seventh power).
KESTRUNE_BOTH void exponential(const Lanes& x, Lanes& result) {
    const IntLanes whole = __builtin_convertvector(x * 1.44269504F - 0.5F, IntLanes);  // rounds towards 0, that is up
    const Lanes k = __builtin_convertvector(whole, Lanes);
    const Lanes f = (x - k * 0.693145752F) - k * 1.42860677e-6F;
    Lanes p = f * (1.0F / 5040) + 1.0F / 720;
    p = p * f + 1.0F / 120;
    p = p * f + 1.0F / 24;
    p = p * f + 1.0F / 6;
    p = p * f + 0.5F;
    p = p * f + 1.0F;
    p = p * f + 1.0F;
    const IntLanes bits = (whole + 127) << 23;
    Lanes power;
    std::memcpy(&power, &bits, sizeof power);
    result = p * power;
}

}  // namespace kestrune::refinement
