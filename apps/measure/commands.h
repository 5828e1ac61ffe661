// SPDX-License-Identifier: Apache-2.0
//
// The commands of the program. Each gets what its command line said and returns the exit code of the process.
#pragma once

#include <cstdint>
#include <opencv2/core.hpp>
#include <optional>
#include <string>
#include <vector>

#include <kestrune/MarkerMetrology.h>
#include "grey_range.h"
#include "matching_options.h"
#include "pixels.h"
#include "run_files.h"
#include "stereo_exposure.h"
#include "stereo_quality.h"
#include "terminal.h"

namespace kestrune::measure {

constexpr int kSuccess = 0;
constexpr int kPartlyFailed = 1;  ///< an image could not be handled, or the demonstration missed its truth
constexpr int kWrongInput = 2;    ///< command line, settings, calibration or an output file; nothing was extracted

/// How the images of one eye are taken and searched.
struct SearchOptions {
    std::string settings;
    std::optional<Path> path;
    bool invert = false;
    std::optional<GreyRange> range;  ///< none: that of the data
    int eye = 0;
    std::string calibration;  ///< empty: none

    /// Names the files to the run's check.
    void addTo(RunFiles& files) const;
};

/// That eye's camera; empty where no calibration was named. Complains of one that the settings make no use of.
///
/// @throws InputError  where the calibration is broken, or missing and needed.
Camera loadCamera(const SearchOptions& options, const Settings& settings);

struct ExtractOptions : SearchOptions {
    std::vector<std::string> images;
    std::string csv, overlay;  ///< file names, empty: not asked for
    bool refine = false;       ///< measure the markers again on the grey levels
};

int runExtract(const ExtractOptions& options);

struct ExplainOptions : SearchOptions {
    std::string image;
    std::string csv, out;  ///< file names, empty: not asked for
};

int runExplain(const ExplainOptions& options);

struct ExplainStereoOptions {
    std::string left, right;  ///< images
    std::string calibration, settings;
    std::optional<Path> path;
    bool invert = false;
    std::optional<GreyRange> range;  ///< none: that of the data
    MatchingOptions match;
    bool refine = kRefineStereo;  ///< measure the markers again before they are matched, if by probability
    std::string csv, out;         ///< file names, empty: not asked for
};

int runExplainStereo(const ExplainStereoOptions& options);

struct DepthOptions : SearchOptions {
    std::string image, depth, csv;  ///< file names
    double depthScale = 1;          ///< unit of the result for each unit of the depth image
};

int runDepth(const DepthOptions& options);

struct ListMatchOptions {
    std::string left, right;       ///< tables of markers
    std::string calibration, csv;  ///< file names
    std::string fundamental;       ///< file name, empty: that of the calibration
    std::optional<Pixels> pixels;  ///< of tables that do not tell
};

int runMatch(const ListMatchOptions& options);

struct StereoOptions {
    std::vector<std::string> left, right;  ///< images, paired in this order
    std::string calibration, settings;
    std::optional<Path> path;
    bool invert = false;
    std::optional<GreyRange> range;  ///< none: that of the data
    int jobs = 0;                    ///< exposures at a time; 0: one for each hardware thread
    double minShare = kLeastShare;   ///< of the poorer eye's markers that must be paired
    bool refine = kRefineStereo;     ///< measure the markers again before they are matched
    MatchingOptions match;
    std::string moved;                    ///< file name of a corrected calibration, empty: not asked for
    std::string csv, ply, json, overlay;  ///< file names and a folder, empty: not asked for
};

int runStereo(const StereoOptions& options);

struct DemoOptions {
    std::string out = "kestrune-demo";
    cv::Size size;  ///< of all images; empty: a size of its own for each part
    int markers = 60;
    std::uint64_t seed = 1;
    std::string settings;         ///< folder of the ready settings; empty: where the program was built or installed
    bool refine = kRefineStereo;  ///< measure the markers again
    Matching matching = kMatchStereo;
};

int runDemo(const DemoOptions& options);

struct SettingsOptions {
    std::vector<std::string> files;
    std::optional<Path> path;
};

/// Checks the files, or lists the fields where there are none.
int runSettings(const SettingsOptions& options);

}  // namespace kestrune::measure
