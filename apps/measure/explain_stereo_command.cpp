// SPDX-License-Identifier: Apache-2.0
#include <fmt/format.h>

#include <filesystem>

#include "commands.h"
#include "files/inputs.h"
#include "files/output_file.h"
#include "image_file.h"
#include "interrupt.h"
#include "markers.h"
#include "overlay.h"
#include "pair_explanation.h"
#include "range_of_run.h"
#include "stereo_exposure.h"

namespace kestrune::measure {

int runExplainStereo(const ExplainStereoOptions& options) {
    namespace fs = std::filesystem;
    const InterruptWatch watch;
    RunFiles files;
    files.reads("--left", options.left);
    files.reads("--right", options.right);
    files.reads("--calibration", options.calibration);
    files.reads("--settings", options.settings);
    options.match.addTo(files);
    files.writesTable("--csv", options.csv);
    files.writes("--out", options.out);
    files.check();
    const Settings settings = readStereoSettings(options.settings, options.path);
    Rig calibration = readRig(options.calibration);
    const std::optional<TrustedInput> trusted = trustedInput(options.match, calibration);
    const bool refine = trusted && options.refine;
    if (!options.out.empty() && fs::path(options.out).extension() != ".png")
        throw InputError(options.out, "a picture is written as .png");
    OutputFile csv;
    csv.open(options.csv);
    const auto range = rangeOfRun({options.left, options.right}, options.range, watch.asked());
    try {
        if (calibration.size.empty()) calibration.size = decodeImage(options.left).size();
        RefinementInput refinement{{}, calibration.uncertainty};
        const auto images = readExposure(options.left, options.right, {options.invert, range}, calibration.size,
                                         refine ? &refinement.grey : nullptr);
        if (watch.asked()) return watch.exitCode(kPartlyFailed, "nothing is done");
        CircleMarkerExtractor extractor = calibratedExtractor(calibration);
        const StereoResult result =
            measureExposure(extractor, images, settings, kLeastShare, refine ? &refinement : nullptr, nullptr,
                            trusted ? &*trusted : nullptr);
        if (csv.isOpen()) writePairExplanationCsv(csv.stream(), result, settings.configs);
        const std::string title = fmt::format("{}, {}   path {}", fs::path(options.left).filename().string(),
                                              fs::path(options.right).filename().string(), nameOf(settings.path));
        csv.commitTable();
        say(fmt::format("{}\n{}", title, pairExplanationTable(result, settings.configs)));
        if (!result.failure.empty()) say(fmt::format("\nstereo takes this exposure as failed: {}\n", result.failure));
        if (!result.doubt.empty()) say(fmt::format("\n{}\n", result.doubt));
        if (!options.out.empty()) {
            std::array<cv::Mat, 2> behind;
            for (std::size_t eye = 0; eye < 2; ++eye)
                behind[eye] = imageBehind(images[eye], asMatrices(calibration.cameras[eye]), settings);
            writePicture(options.out, drawPairExplanation(behind, result, title));
        }
    } catch (const OutputError&) {
        throw;
    } catch (const std::exception& error) {
        complain(plainText(error));
        return kPartlyFailed;
    }
    return watch.exitCode(kSuccess, "but all is done");
}

}  // namespace kestrune::measure
