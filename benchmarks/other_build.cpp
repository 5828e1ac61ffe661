// SPDX-License-Identifier: Apache-2.0
#include "other_build.h"

#include <dlfcn.h>

#include <stdexcept>

namespace kestrune::bench {

Job otherBuildsJob(const std::string& file, const BenchScene& scene, const CicrleConfigs& settings,
                   Operation operation) {
    void* const module = ::dlopen(file.c_str(), RTLD_NOW | RTLD_LOCAL);  // stays loaded
    void* const symbol = module != nullptr ? ::dlsym(module, kMakeOtherJob) : nullptr;
    if (symbol == nullptr) throw std::runtime_error(::dlerror());
    Job job;
    if (!reinterpret_cast<MakeOtherJob>(symbol)(RecordSizes{}, scene, settings, operation, job))
        throw std::runtime_error(file + ": its records differ from those of this build");
    return job;
}

}  // namespace kestrune::bench
