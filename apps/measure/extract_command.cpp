// SPDX-License-Identifier: Apache-2.0
#include <fmt/format.h>

#include <filesystem>
#include <utility>

#include "commands.h"
#include "files/inputs.h"
#include "files/output_file.h"
#include "full_size_check.h"
#include "image_file.h"
#include "interrupt.h"
#include "markers.h"
#include "overlay.h"
#include "progress.h"
#include "range_of_run.h"
#include "refined_markers.h"

namespace kestrune::measure {
namespace {

namespace fs = std::filesystem;

/// The overlay of each image, none where none is asked for; checks all files of the run.
std::vector<std::string> nameFiles(const ExtractOptions& options) {
    RunFiles files;
    files.reads("IMAGE", options.images);
    options.addTo(files);
    files.writesTable("--csv", options.csv);
    std::vector<std::string> overlays;
    if (!options.overlay.empty()) {
        const fs::path base = options.overlay;
        if (base.extension() != ".png") throw InputError(options.overlay, "an overlay is written as .png");
        if (options.images.size() == 1) {
            overlays = {options.overlay};
            files.writes("--overlay", options.overlay);
        }
        for (std::size_t i = overlays.size(); i < options.images.size(); ++i) {
            const std::string stem = base.stem().string() + "-" + fs::path(options.images[i]).stem().string();
            const std::string name = files.claim("--overlay", base.parent_path(), stem, {".png"});
            overlays.push_back((base.parent_path() / (name + ".png")).string());
        }
    }
    files.check();
    return overlays;
}

/// What all images of a run share, checked before the first is opened.
struct Run {
    explicit Run(const ExtractOptions& options)
        : overlays(nameFiles(options)),
          settings(readSettings(options.settings, options.path)),
          eye(options.eye),
          invert(options.invert),
          refine(options.refine),
          camera(loadCamera(options, settings)),
          calibratedSize(options.calibration, camera.size, deliversUndistorted(settings)) {
        csv.open(options.csv);
        if (csv.isOpen()) writeCsvHeader(csv.stream(), refine);
        csv.flush();
    }

    /// The line to print about an image. `assumed` tells what had to be, if anything.
    std::string handle(const std::string& file, std::size_t index) {
        const cv::Mat whole = decodeImage(file), image = inEightBits(whole, invert, range);
        ++read;
        assumed = calibratedSize.require(file, image.size());
        std::vector<Corner> records;
        std::vector<Marker> markers = findMarkers(extractor, image, eye, camera, settings, &records);
        doubts = fullSizeWarning(extractor, image, eye, camera, settings, markers);
        std::string line = fmt::format("{}: {} markers", file, markers.size());
        std::vector<MarkerEstimate> estimates;
        if (refine) {
            estimates =
                refineDelivered(inAllBits(whole, range), records, refinementOptions(image.size(), camera, settings));
            applyEstimates(markers, estimates);
            line += ", " + countsOf(estimates);
        }
        const std::vector<MarkerEstimate>* const told = refine ? &estimates : nullptr;
        if (csv.isOpen()) writeCsvRows(csv.stream(), file, markers, pixelsOf(settings, camera), told);
        csv.flush();
        if (!overlays.empty()) {
            writePicture(overlays[index], draw(file, image, markers, told));
            line += ", overlay " + overlays[index];
        }
        return line + "\n";
    }

    cv::Mat draw(const std::string& file, const cv::Mat& image, const std::vector<Marker>& markers,
                 const std::vector<MarkerEstimate>* estimates) const {
        const std::string title =
            fmt::format("{}   path {}", fs::path(file).filename().string(), nameOf(settings.path));
        return drawFound(imageBehind(image, camera, settings), markers, title, estimates);
    }

    std::vector<std::string> overlays;  ///< first, since naming them checks all files
    Settings settings;
    int eye;
    bool invert, refine;
    std::optional<GreyRange> range;
    Camera camera;
    CalibratedSize calibratedSize;
    std::string assumed;
    std::string doubts;  ///< what may be wrong with the markers of the image, if anything
    CircleMarkerExtractor extractor;
    OutputFile csv;
    std::size_t read = 0;  ///< images that could be read
};

/// Puts the table in its place; one of no image at all would only hide what an earlier run left there.
void finishTable(Run& run, const ExtractOptions& options, std::size_t done) {
    if (!run.csv.isOpen()) return;
    if (run.read == 0) {
        complain(options.csv + ": not written, since no image was read");
        return;
    }
    const std::size_t all = options.images.size();
    run.csv.commitTable(done < all ? fmt::format("{} of {} images", done, all) : "");
}

}  // namespace

void SearchOptions::addTo(RunFiles& files) const {
    files.reads("--settings", settings);
    files.reads("--calibration", calibration);
}

Camera loadCamera(const SearchOptions& options, const Settings& settings) {
    if (deliversUndistorted(settings) && settings.configs.cornersRectified)
        throw InputError(options.settings,
                         "field 'cornersRectified' true, so that the image has no distortion, and 'skipUndistort' "
                         "false, which would take it out once more");
    if (options.calibration.empty()) {
        if (deliversUndistorted(settings))
            throw InputError(options.settings, "field 'skipUndistort' false needs --calibration");
        return {};
    }
    Camera camera = readCameras(options.calibration, options.eye)[static_cast<std::size_t>(options.eye)];
    if (!canUndistort(settings.path))
        complain(fmt::format("{}: not used, path {} measures in the image as it is", options.calibration,
                             nameOf(settings.path)));
    else if (!deliversUndistorted(settings))
        complain(options.settings + ": field 'skipUndistort' true, so " + options.calibration + " is not used");
    return camera;
}

int runExtract(const ExtractOptions& options) {
    const InterruptWatch watch;
    Run run(options);
    run.range = rangeOfRun(options.images, options.range, watch.asked());
    const std::size_t all = options.images.size();
    std::size_t done = 0, failed = 0;
    std::string lost;  // why an output could not be written
    Progress progress(all);
    while (done < all && lost.empty() && !watch.asked()) {
        const std::string& file = options.images[done];
        progress.show(done, file);
        std::string line, problem;
        try {
            line = run.handle(file, done);
        } catch (const OutputError& error) {
            lost = problem = error.what();
        } catch (const std::exception& error) {
            problem = plainText(error, file);
        }
        ++done;
        progress.clear();
        if (!run.assumed.empty()) complain(std::exchange(run.assumed, {}));
        say(line);
        if (!run.doubts.empty()) complain(file + ": " + std::exchange(run.doubts, {}));
        if (problem.empty()) continue;
        complain(problem);
        ++failed;
    }
    try {
        finishTable(run, options, done);
    } catch (const OutputError& error) {
        if (error.what() != lost) complain(error.what());
        lost = error.what();
    }
    if (failed > 0) complain(fmt::format("{} of {} images failed", failed, all));
    return watch.exitCode(failed == 0 && lost.empty() ? kSuccess : kPartlyFailed,
                          fmt::format("{} of {} images are done", done, all));
}

}  // namespace kestrune::measure
