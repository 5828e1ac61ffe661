// SPDX-License-Identifier: Apache-2.0
#include <fmt/format.h>

#include "commands.h"
#include "stereo_exposure.h"

namespace kestrune::measure {
namespace {

/// Whether a file that is good for an extraction holds what a stereo measurement reads as well.
bool servesStereo(const std::string& file, Path path) {
    try {
        readStereoSettings(file, path);
        return true;
    } catch (const std::runtime_error&) {
        return false;
    }
}

}  // namespace

int runSettings(const SettingsOptions& options) {
    if (options.files.empty()) say(describeSettings());
    int code = kSuccess;
    for (const std::string& file : options.files) {
        try {
            const Path path = readSettings(file, options.path).path;
            say(fmt::format("{}: good for path {}{}\n", file, nameOf(path),
                            servesStereo(file, path) ? ", in stereo too" : ""));
        } catch (const std::runtime_error& error) {
            complain(error.what());
            code = kWrongInput;
        }
    }
    return code;
}

}  // namespace kestrune::measure
