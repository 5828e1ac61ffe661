// SPDX-License-Identifier: Apache-2.0
#include <fmt/format.h>

#include <filesystem>
#include <fstream>
#include <set>

#include "commands.h"
#include "inputs.h"
#include "markers.h"
#include "overlay.h"
#include "progress.h"

namespace kestrune::host {
namespace {

namespace fs = std::filesystem;

/// Gives each image of a run its own overlay file.
class OverlayNames {
  public:
    OverlayNames(const std::string& file, bool many) : base_(file), many_(many) {
        if (!file.empty() && base_.extension() != ".png") throw InputError(file, "an overlay is written as .png");
    }

    bool wanted() const { return !base_.empty(); }

    std::string nextFor(const std::string& image) {
        if (!many_) return base_.string();
        const std::string stem = base_.stem().string() + "-" + fs::path(image).stem().string();
        std::string name = stem;
        for (int n = 2; !used_.insert(name).second; ++n) name = fmt::format("{}-{}", stem, n);
        return (base_.parent_path() / (name + ".png")).string();
    }

  private:
    fs::path base_;
    bool many_;
    std::set<std::string> used_;
};

/// What all images of a run share, checked before the first is opened.
struct Run {
    explicit Run(const ExtractOptions& options)
        : settings(loadSettings(options.settings, options.path)),
          overlays(options.overlay, options.images.size() > 1),
          eye(options.eye),
          invert(options.invert),
          camera(loadCamera(options, settings)),
          calibratedSize(options.calibration, camera.size, deliversUndistorted(settings)) {
        if (!options.csv.empty()) {
            openOutput(csv, options.csv);
            writeCsvHeader(csv);
        }
    }

    /// The line to print about the image. `assumed` tells what had to be, if anything.
    std::string handle(const std::string& file) {
        const cv::Mat image = readImage(file, invert);
        assumed = calibratedSize.require(file, image.size());
        const std::vector<Marker> markers = findMarkers(extractor, image, eye, camera, settings);
        if (csv.is_open()) writeCsvRows(csv, file, markers, pixelsOf(settings, camera));
        std::string line = fmt::format("{}: {} markers", file, markers.size());
        if (overlays.wanted()) {
            const std::string overlay = overlays.nextFor(file);
            writePicture(overlay, draw(file, image, markers));
            line += ", overlay " + overlay;
        }
        return line;
    }

    cv::Mat draw(const std::string& file, const cv::Mat& image, const std::vector<Marker>& markers) const {
        std::vector<Mark> marks;
        marks.reserve(markers.size());
        for (const Marker& marker : markers) marks.push_back(markOf(marker, foundKind(marker.polarity)));
        const std::string title =
            fmt::format("{}   path {}", fs::path(file).filename().string(), nameOf(settings.path));
        return drawOverlay(imageBehind(image, camera, settings), marks, title, foundLegend(marks));
    }

    Settings settings;
    OverlayNames overlays;
    int eye;
    bool invert;
    Camera camera;
    CalibratedSize calibratedSize;
    std::string assumed;
    CircleMarkerExtractor extractor;
    std::ofstream csv;
};

}  // namespace

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
    Camera camera = loadCalibration(options.calibration, options.eye)[static_cast<std::size_t>(options.eye)];
    if (!canUndistort(settings.path))
        complain(fmt::format("{}: not used, path {} measures in the image as it is", options.calibration,
                             nameOf(settings.path)));
    else if (!deliversUndistorted(settings))
        complain(options.settings + ": field 'skipUndistort' true, so " + options.calibration + " is not used");
    return camera;
}

int runExtract(const ExtractOptions& options) {
    Run run(options);
    std::size_t done = 0, failed = 0;
    Progress progress(options.images.size());
    for (const std::string& file : options.images) {
        progress.show(done++, file);
        try {
            const std::string line = run.handle(file);
            progress.clear();
            if (!run.assumed.empty()) complain(run.assumed);
            fmt::print("{}\n", line);
            std::fflush(stdout);
        } catch (const std::exception& error) {
            progress.clear();
            complain(plainText(error, file));
            ++failed;
        }
    }
    if (failed > 0) complain(fmt::format("{} of {} images failed", failed, options.images.size()));
    return isWhole(run.csv, options.csv) && failed == 0 ? kSuccess : kPartlyFailed;
}

}  // namespace kestrune::host
