// SPDX-License-Identifier: Apache-2.0
//
// Four and eight numbers at a time, for any machine: compilers make instructions of them, without any licence to change
// the order of sums.
#pragma once

#include <bit>
#include <cstdint>
#include <cstring>

namespace kestrune::refinement {

using Lanes = float __attribute__((vector_size(16)));
using IntLanes = std::int32_t __attribute__((vector_size(16)));
inline constexpr int kLanes = 4;

inline Lanes load(const float* from) {
    Lanes result;
    std::memcpy(&result, from, sizeof result);
    return result;
}
inline void store(float* to, const Lanes& value) {
    std::memcpy(to, &value, sizeof value);
}
inline Lanes all(float value) {
    return Lanes{value, value, value, value};
}
inline float sum(const Lanes& v) {
    return (v[0] + v[2]) + (v[1] + v[3]);
}

/// exp(x) for x of -80 to 0, to 2e-7 of itself: 2^k times a polynomial on half a binade to either side (the Taylor
/// series of 2^f to its seventh power).
inline Lanes exponential(const Lanes& x) {
    const Lanes scaled = x * all(1.44269504F);
    const IntLanes whole = __builtin_convertvector(scaled - all(0.5F), IntLanes);  // rounds towards 0, that is up
    const Lanes f = (x - __builtin_convertvector(whole, Lanes) * all(0.693145752F)) -
                    __builtin_convertvector(whole, Lanes) * all(1.42860677e-6F);
    Lanes p = all(1.0F / 5040);
    for (const float c : {1.0F / 720, 1.0F / 120, 1.0F / 24, 1.0F / 6, 0.5F, 1.0F, 1.0F}) p = p * f + all(c);
    const IntLanes bits = (whole + 127) << 23;
    return p * std::bit_cast<Lanes>(bits);
}

}  // namespace kestrune::refinement
