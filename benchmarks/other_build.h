// SPDX-License-Identifier: Apache-2.0
//
// What a module with an earlier build of the library and this program have in common.
#pragma once

#include <cstddef>

#include "candidates.h"

namespace kestrune::bench {

/// Sizes of what goes from one to the other; builds whose records differ cannot be compared in one process.
struct RecordSizes {
    std::size_t settings = sizeof(CicrleConfigs), corner = sizeof(Corner), scene = sizeof(BenchScene);
    bool operator==(const RecordSizes&) const = default;
};

using MakeOtherJob = bool (*)(const RecordSizes& sizes, const BenchScene& scene, const CicrleConfigs& settings,
                              Operation operation, Job& job);
constexpr const char* kMakeOtherJob = "kestruneBenchmarkJob";

}  // namespace kestrune::bench
