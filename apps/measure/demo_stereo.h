// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <kestrune_scene/scene.h>
#include <filesystem>

#include <kestrune/MarkerMetrology.h>
#include "commands.h"
#include "interrupt.h"

namespace kestrune::measure {

// Of both parts of the demonstration.
constexpr double kClutterPerPixel = 18e-6;  ///< things that are no markers
constexpr double kMatchDistancePx = 3;  ///< a detection farther than this from every marker's centre shows none of them

/// The rig as a host would hand it to the library.
Rig calibrationOf(const scene::Rig& rig);

/// The second part of the demonstration: renders a curved object with markers of two sizes, measures it in both ways,
/// prints the errors against the truth and writes the pictures.
///
/// @param settings  folder of the bright-*.yaml files.
/// @param watch     asked to end, it finishes the way under way.
/// @return          whether both ways gave every pair and none that is wrong.
bool demoStereo(const DemoOptions& options, const std::filesystem::path& settings, const std::filesystem::path& out,
                const InterruptWatch& watch);

/// Names the files of that part to the check of the run.
void nameStereoFiles(RunFiles& files, const std::filesystem::path& settings, const std::filesystem::path& out);

}  // namespace kestrune::measure
