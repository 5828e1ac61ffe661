// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <opencv2/core/hal/intrin.hpp>

// OpenCV from 4.11 on keeps the operators of its vector types in a header of their own.
#if __has_include(<opencv2/core/hal/intrin_legacy_ops.h>)
#include <opencv2/core/hal/intrin_legacy_ops.h>
#endif

// Vectors of doubles go with square roots, divisions and roundings of IEEE 754; where a machine has none, its vectors
// of floats only approximate.
#if defined(CV_SIMD128_64F) && CV_SIMD128 && CV_SIMD128_64F
#define KESTRUNE_EXACT_LANES 1
#else
#define KESTRUNE_EXACT_LANES 0
#endif
