// SPDX-License-Identifier: Apache-2.0
//
// kestrune-measure: the program. Reads images and settings, calls the library, writes tables and pictures.
#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <csignal>
#include <opencv2/core/utils/logger.hpp>

#include <kestrune/MarkerMetrology.h>
#include "command_line.h"

#include "commands.h"
#include "files/inputs.h"
#include "files/output_file.h"
#include "kestrune/MarkerExtractor/version.h"

namespace kestrune::measure {
namespace {

int run(int argc, char** argv) {
    CLI::App app("Finds small flat circular markers in camera images and measures them.", "kestrune-measure");
    app.require_subcommand(1);
    app.set_version_flag("--version",
                         fmt::format("kestrune-measure {}.{}.{}", KESTRUNE_MARKEREXTRACTOR_VERSION_MAJOR,
                                     KESTRUNE_MARKEREXTRACTOR_VERSION_MINOR, KESTRUNE_MARKEREXTRACTOR_VERSION_PATCH));
    ExtractOptions extract;
    addExtract(app, extract);
    ExplainOptions explain;
    addExplain(app, explain);
    ExplainStereoOptions explainStereo;
    addExplainStereo(app, explainStereo);
    DepthOptions depth;
    addDepth(app, depth);
    ListMatchOptions match;
    addMatch(app, match);
    StereoOptions stereo;
    addStereo(app, stereo);
    DemoOptions demo;
    addDemo(app, demo);
    SettingsOptions settings;
    addSettings(app, settings);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? kSuccess : kWrongInput;
    }
    if (app.got_subcommand("extract")) return runExtract(extract);
    if (app.got_subcommand("explain-stereo")) return runExplainStereo(explainStereo);
    if (app.got_subcommand("explain")) return runExplain(explain);
    if (app.got_subcommand("depth")) return runDepth(depth);
    if (app.got_subcommand("match")) return runMatch(match);
    if (app.got_subcommand("stereo")) return runStereo(stereo);
    if (app.got_subcommand("demo")) return runDemo(demo);
    return runSettings(settings);
}

}  // namespace

}  // namespace kestrune::measure

int main(int argc, char** argv) {
    // Its reports about unreadable files would stand beside ours.
    cv::utils::logging::setLogLevel(cv::utils::logging::LOG_LEVEL_SILENT);
    // No file that is opened later may get the number of a standard stream that the caller closed, and its lines.
    int stream = 0;
    while (stream >= 0 && stream <= STDERR_FILENO) stream = ::open("/dev/null", O_RDWR);  // NOLINT(*-vararg)
    ::close(stream);
    // A limit on file sizes and a reader that left are told as what they are to a write: an error.
    std::signal(SIGXFSZ, SIG_IGN);
    std::signal(SIGPIPE, SIG_IGN);
    using namespace kestrune;
    using namespace kestrune::measure;
    int code = kWrongInput;
    try {
        code = run(argc, argv);
    } catch (const OutputError& error) {
        complain(error.what());
        code = kPartlyFailed;
    } catch (const std::exception& error) {
        complain(plainText(error));
    }
    return saidAll() || code != kSuccess ? code : kPartlyFailed;
}
