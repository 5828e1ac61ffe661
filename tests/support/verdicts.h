// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <gtest/gtest.h>

#include "MarkerExtractor/stereo/pair_verdicts.h"

namespace kestrune::test {

/// Two markers' verdict must be there; its numbers, but for those of a pair that stands, may be off by a share.
inline void expectVerdict(const PairVerdicts& verdicts, const PairVerdict& expected, double share = 0.03) {
    const auto isOf = [&](const PairVerdict& v) { return std::tie(v.left, v.right) == std::tie(expected.left, expected.right); };
    const auto found = std::find_if(verdicts.begin(), verdicts.end(), isOf);
    ASSERT_NE(found, verdicts.end()) << expected.left << ' ' << expected.right;
    EXPECT_EQ(found->gate, expected.gate) << expected.left << ' ' << expected.right;
    if (expected.gate == PairGate::none) return;
    const auto isNear = [share](double told, double value) {
        if (!std::isfinite(value)) return told == value || (std::isnan(told) && std::isnan(value));
        return std::abs(told - value) <= share * std::abs(value);
    };
    EXPECT_PRED2(isNear, found->measured, expected.measured) << static_cast<int>(expected.gate);
    EXPECT_PRED2(isNear, found->least, expected.least) << static_cast<int>(expected.gate);
    EXPECT_PRED2(isNear, found->largest, expected.largest) << static_cast<int>(expected.gate);
}

}  // namespace kestrune::test
