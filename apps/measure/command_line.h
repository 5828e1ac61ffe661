// SPDX-License-Identifier: Apache-2.0
//
// The options and help texts of the commands, in the order in which the program lists them.
#pragma once

#include <CLI/CLI.hpp>
#include <optional>

#include "commands.h"

namespace kestrune::measure {

extern const char* const kFileNotes;   ///< for the help of every command that writes
extern const char* const kImageNotes;  ///< for that of every command that searches images

void addPath(CLI::App* command, std::optional<Path>& path);
void addRange(CLI::App* command, std::optional<GreyRange>& range);
void addRefine(CLI::App* command, bool& refine);  ///< of commands that may refine without being told
void addMatcher(CLI::App* command, Matching& matching);

void addExtract(CLI::App& app, ExtractOptions& options);
void addExplain(CLI::App& app, ExplainOptions& options);
void addExplainStereo(CLI::App& app, ExplainStereoOptions& options);
void addDepth(CLI::App& app, DepthOptions& options);
void addMatch(CLI::App& app, ListMatchOptions& options);
void addStereo(CLI::App& app, StereoOptions& options);
void addDemo(CLI::App& app, DemoOptions& options);
void addSettings(CLI::App& app, SettingsOptions& options);

}  // namespace kestrune::measure
