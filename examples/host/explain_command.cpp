// SPDX-License-Identifier: Apache-2.0
#include <fmt/format.h>

#include <filesystem>
#include <fstream>

#include "commands.h"
#include "explanation.h"
#include "inputs.h"
#include "overlay.h"

namespace kestrune::host {

int runExplain(const ExplainOptions& options) {
    namespace fs = std::filesystem;
    const Settings settings = loadSettings(options.settings, options.path);
    const Camera camera = loadCamera(options, settings);
    if (!options.out.empty() && fs::path(options.out).extension() != ".png")
        throw InputError(options.out, "a picture is written as .png");
    std::ofstream csv;
    if (!options.csv.empty()) openOutput(csv, options.csv);
    try {
        const cv::Mat image = readImage(options.image, options.invert);
        CalibratedSize calibratedSize(options.calibration, camera.size, deliversUndistorted(settings));
        const std::string assumed = calibratedSize.require(options.image, image.size());
        if (!assumed.empty()) complain(assumed);
        CircleMarkerExtractor extractor;
        const std::vector<Candidate> candidates = explainMarkers(extractor, image, options.eye, camera, settings);
        if (csv.is_open()) writeExplanationCsv(csv, options.image, candidates);
        const std::string title =
            fmt::format("{}   path {}", fs::path(options.image).filename().string(), nameOf(settings.path));
        fmt::print("{}\n{}", title, explanationTable(candidates));
        if (!options.out.empty()) writePicture(options.out, drawExplanation(image, candidates, title));
    } catch (const std::exception& error) {
        complain(plainText(error, options.image));
        return kPartlyFailed;
    }
    return isWhole(csv, options.csv) ? kSuccess : kPartlyFailed;
}

}  // namespace kestrune::host
