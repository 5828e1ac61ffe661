// SPDX-License-Identifier: Apache-2.0
//
// A host that knows the library only through a plug-in, which it closes after a measurement. It must outlive that: threads of
// the call may be on their last steps.
// usage: plugin_host PLUGIN
#include <dlfcn.h>
#include <sys/types.h>

#include <cstdio>
#include <thread>

int main(int, char** arguments) {
    for (int round = 0; round < 3; ++round) {
        void* const plugin = ::dlopen(arguments[1], RTLD_NOW | RTLD_LOCAL);
        if (plugin == nullptr) return std::puts(::dlerror()), 1;
        if (reinterpret_cast<int (*)()>(::dlsym(plugin, "measure"))() != 0) return std::puts("lost markers"), 1;
        ::dlclose(plugin);
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    return 0;
}
