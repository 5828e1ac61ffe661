// SPDX-License-Identifier: Apache-2.0
#include "other_build.h"

/// @return false where the records of the program differ from those of this build.
extern "C" __attribute__((visibility("default"))) bool kestruneBenchmarkJob(const kestrune::bench::RecordSizes& sizes,
                                                                            const kestrune::bench::BenchScene& scene,
                                                                            const kestrune::CicrleConfigs& settings,
                                                                            kestrune::bench::Operation operation,
                                                                            kestrune::bench::Job& job) {
    if (!(sizes == kestrune::bench::RecordSizes{})) return false;
    job = kestrune::bench::pathJob(scene, settings, operation);
    return true;
}
