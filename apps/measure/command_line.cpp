// SPDX-License-Identifier: Apache-2.0
#include "command_line.h"

#include <fmt/format.h>

#include <cstdio>
#include <map>

namespace kestrune::measure {
namespace {

// The scene needs room for a few markers, and the renderer memory for its accumulators.
constexpr int kSmallestSide = 240, kLargestSide = 8192;

}  // namespace

const char* const kFileNotes = R"(
Files: no output may be an input or another output. Each is written beside its place, as FILE.*.part, and takes the
place when it is whole: an earlier one survives what fails. Nothing is written when no image could be read, and a write
that fails ends the run. Ctrl-C or SIGTERM ends it after what is under way and writes what is done (exit code 130 or
143); a CSV that lacks images then has FILE.incomplete beside it until it is written in full, JSON says complete:
false, PLY has a comment. A second one kills.)";

const char* const kImageNotes = R"(
Images: JPEG, PNG, TIFF, BMP and what else OpenCV reads; one that is damaged or ends early fails. Those of 8 bits are
taken as they are. Others are mapped to 8 bits, all of a run by one --range: (value - LOW) * 255 / (HIGH - LOW), to the
nearest whole number, halves to the even one, 0 below and 255 above; what is no finite number counts as LOW. Without
--range, the images are read twice. --invert comes after.)";

void addPath(CLI::App* command, std::optional<Path>& path) {
    static const std::map<std::string, Path> kPaths = {{"simple", Path::simple},
                                                       {"radial", Path::radial},
                                                       {"fast", Path::fast},
                                                       {"complex", Path::complex},
                                                       {"hand", Path::hand}};
    command
        ->add_option(
            "--path", path,
            "simple (sub-pixel contours), radial, fast, complex (edge-based) or hand (strong edges); without it, "
            "the settings decide")
        ->transform(CLI::CheckedTransformer(kPaths))
        ->option_text("simple|radial|fast|complex|hand");
}

void addRange(CLI::App* command, std::optional<GreyRange>& range) {
    command
        ->add_option_function<std::string>(
            "--range",
            [&range](const std::string& text) {
                range = parseRange(text);
                if (!range)
                    throw CLI::ValidationError("--range", text + " is no LOW:HIGH of two numbers in that order");
            },
            "values of images of more than 8 bits that become 0 and 255; without it, those of the data of all images")
        ->option_text("LOW:HIGH");
}

void addRefine(CLI::App* command, bool& refine) {
    command->add_flag("--refine,!--no-refine", refine,
                      fmt::format("measure the markers again on the grey levels, with their uncertainty; {} without it",
                                  refine ? "done" : "not done"));
}

void addMatcher(CLI::App* command, Matching& matching) {
    static const std::map<std::string, Matching> kMatchings = {{"path", Matching::path},
                                                               {"trusted", Matching::trusted}};
    command
        ->add_option("--match", matching,
                     fmt::format("pair the markers by the matcher of the path, or by probability, which gives pairs "
                                 "that are sure and tells of the others; {} without it",
                                 nameOf(matching)))
        ->transform(CLI::CheckedTransformer(kMatchings))
        ->option_text("path|trusted");
}

void addDemo(CLI::App& app, DemoOptions& options) {
    CLI::App* command =
        app.add_subcommand("demo", "Render exposures, find and measure their markers, compare with the truth");
    command->add_option("--out", options.out, "folder for the pictures")->capture_default_str();
    command
        ->add_option_function<std::string>(
            "--size",
            [&options](const std::string& text) {
                char rest = 0;
                int width = 0, height = 0;
                const bool read = std::sscanf(text.c_str(), "%dx%d%c", &width, &height, &rest) == 2;
                if (!read || std::min(width, height) < kSmallestSide || std::max(width, height) > kLargestSide) {
                    throw CLI::ValidationError(
                        "--size", fmt::format("{} is no WxH of {} to {} px", text, kSmallestSide, kLargestSide));
                }
                options.size = {width, height};
            },
            "of each image, px")
        ->option_text("WxH [1632x1360, stereo part 2448x2048]");
    command->add_option("--markers", options.markers, "at most so many")
        ->check(CLI::Range(1, 2000))
        ->capture_default_str();
    command->add_option("--seed", options.seed, "of places and noise")->capture_default_str();
    command->add_option("--settings", options.settings, "folder of the ready settings");
    addRefine(command, options.refine);
    addMatcher(command, options.matching);
    command->footer(
        std::string("Exit code: 0 if every path found and paired every marker and nothing else, otherwise 1.") +
        kFileNotes);
}

void addSettings(CLI::App& app, SettingsOptions& options) {
    CLI::App* command = app.add_subcommand("settings", "List the fields of a settings file, or check files");
    command->add_option("FILE", options.files, "settings files to check; without one, the fields are listed");
    addPath(command, options.path);
    command->footer("Exit code: 0, 2 if a file is not good for its path.");
}

}  // namespace kestrune::measure
