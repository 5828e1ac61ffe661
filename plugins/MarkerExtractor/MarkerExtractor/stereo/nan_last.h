// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cmath>

namespace kestrune {

/// The order of a sort that must hold whatever the values are: ascending, NaN last.
struct AscendingNanLast {
    template <typename T>
    bool operator()(T a, T b) const {
        return a < b || (std::isnan(b) && !std::isnan(a));
    }
};

}  // namespace kestrune
