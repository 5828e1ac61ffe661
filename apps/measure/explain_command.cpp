// SPDX-License-Identifier: Apache-2.0
#include <fmt/format.h>

#include <filesystem>

#include "commands.h"
#include "explanation.h"
#include "files/inputs.h"
#include "files/output_file.h"
#include "full_size_check.h"
#include "image_file.h"
#include "interrupt.h"
#include "overlay.h"
#include "range_of_run.h"

namespace kestrune::measure {
namespace {

/// What other settings would find, and a hint.
std::string whatElse(CircleMarkerExtractor& extractor, const cv::Mat& image, const ExplainOptions& options,
                     const Camera& camera, const Settings& settings, const std::vector<Marker>& markers) {
    std::string trials = trialTable(tryOtherSettings(extractor, image, options.eye, camera, settings, markers));
    if (trials.empty() && markers.empty()) trials = "\nNo other setting that was tried adds a marker.\n";
    const std::string hint = polarityHint(extractor, image, options.eye, camera, settings, markers, options.invert);
    return trials + (hint.empty() ? "" : "\n" + hint);
}

}  // namespace

int runExplain(const ExplainOptions& options) {
    namespace fs = std::filesystem;
    const InterruptWatch watch;
    RunFiles files;
    files.reads("IMAGE", options.image);
    options.addTo(files);
    files.writesTable("--csv", options.csv);
    files.writes("--out", options.out);
    files.check();
    const Settings settings = readSettings(options.settings, options.path);
    const Camera camera = loadCamera(options, settings);
    if (!options.out.empty() && fs::path(options.out).extension() != ".png")
        throw InputError(options.out, "a picture is written as .png");
    OutputFile csv;
    csv.open(options.csv);
    const std::optional<GreyRange> range = rangeOfRun({options.image}, options.range, watch.asked());
    try {
        const cv::Mat image = readImage(options.image, options.invert, range);
        CalibratedSize calibratedSize(options.calibration, camera.size, deliversUndistorted(settings));
        const std::string assumed = calibratedSize.require(options.image, image.size());
        if (!assumed.empty()) complain(assumed);
        if (watch.asked()) return watch.exitCode(kPartlyFailed, "nothing is done");
        CircleMarkerExtractor extractor;
        std::vector<Dropped> dropped;
        const std::vector<Candidate> candidates =
            explainMarkers(extractor, image, options.eye, camera, settings, &dropped);
        if (csv.isOpen()) {
            writeExplanationCsv(csv.stream(), options.image, candidates);
            writeDroppedRows(csv.stream(), options.image, dropped);
        }
        const std::string title =
            fmt::format("{}   path {}", fs::path(options.image).filename().string(), nameOf(settings.path));
        csv.commitTable();
        say(fmt::format("{}\n{}{}", title, explanationTable(candidates), droppedTable(dropped)));
        const std::vector<Marker> markers = findMarkers(extractor, image, options.eye, camera, settings);
        if (!watch.asked()) say(whatElse(extractor, image, options, camera, settings, markers));
        const std::string doubts = fullSizeWarning(extractor, image, options.eye, camera, settings, markers);
        if (!doubts.empty()) complain(options.image + ": " + doubts);
        if (!options.out.empty()) writePicture(options.out, drawExplanation(image, candidates, title, dropped));
    } catch (const OutputError&) {
        throw;
    } catch (const std::exception& error) {
        complain(plainText(error, options.image));
        return kPartlyFailed;
    }
    return watch.exitCode(kSuccess, "but all is done");
}

}  // namespace kestrune::measure
